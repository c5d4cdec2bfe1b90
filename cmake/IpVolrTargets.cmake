# What every target of the project shares.

# Language, warnings, floating-point rules and sanitizers of one target.
function(ip_volr_defaults target)
  target_compile_features(${target} PUBLIC cxx_std_17)
  set_target_properties(${target} PROPERTIES
    CXX_STANDARD 20 CXX_STANDARD_REQUIRED ON CXX_EXTENSIONS OFF
    CXX_VISIBILITY_PRESET hidden VISIBILITY_INLINES_HIDDEN ON
    POSITION_INDEPENDENT_CODE ON)
  target_include_directories(${target} PRIVATE ${PROJECT_SOURCE_DIR})
  # No contraction: kernels of every instruction set round like their scalar twins.
  target_compile_options(${target} PRIVATE -Wall -Wextra -Wpedantic -Wshadow -Werror -ffp-contract=off)
  if(IP_VOLR_SANITIZE)
    target_compile_options(${target} PRIVATE -fsanitize=${IP_VOLR_SANITIZE} -fno-omit-frame-pointer)
    target_link_options(${target} PRIVATE -fsanitize=${IP_VOLR_SANITIZE})
    if(IP_VOLR_SANITIZE MATCHES thread AND CMAKE_CXX_COMPILER_ID STREQUAL GNU)
      # The server's network library orders its handlers by fences as well as by locks. The compiler says that the
      # sanitizer does not know fences, which is no error: the locks suffice.
      target_compile_options(${target} PRIVATE -Wno-tsan)
    endif()
  endif()
endfunction()

# One test executable made of all sources of tests/<name>/.
function(ip_volr_test name)
  file(GLOB sources CONFIGURE_DEPENDS ${PROJECT_SOURCE_DIR}/tests/${name}/*.cpp)
  if(NOT sources)
    return()
  endif()
  add_executable(test_${name} ${sources} ${PROJECT_SOURCE_DIR}/tests/support/test_main.cpp
    ${PROJECT_SOURCE_DIR}/tests/support/refused_memory.cpp)
  ip_volr_defaults(test_${name})
  if(IP_VOLR_SANITIZE MATCHES undefined)
    # Looked for in what is tested. In the tests' own macros it would take twice as long to compile.
    target_compile_options(test_${name} PRIVATE -fno-sanitize=undefined)
  endif()
  target_link_libraries(test_${name} PRIVATE ${ARGN} GTest::gtest Threads::Threads)
  add_test(NAME ${name} COMMAND test_${name})
endfunction()
