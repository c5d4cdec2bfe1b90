# What a host needs to link the library: both shared libraries, their headers and a package for find_package(ip_volr).
include(GNUInstallDirs)
include(CMakePackageConfigHelpers)

# Every header that an exported class or function can be reached through: those that export something and what they
# include. Paths are relative to the project. Headers of kernels stay inside the library.
function(ip_volr_public_headers result)
  file(GLOB candidates CONFIGURE_DEPENDS RELATIVE ${PROJECT_SOURCE_DIR} ${PROJECT_SOURCE_DIR}/ip_volr/*.h)
  set(pending "")
  foreach(header ${candidates})
    file(STRINGS ${PROJECT_SOURCE_DIR}/${header} exports REGEX "^[^/]*IP_VOLR_EXPORT")
    if(exports)
      list(APPEND pending ${header})
    endif()
  endforeach()
  set(headers "")
  while(pending)
    list(POP_FRONT pending header)
    if(header IN_LIST headers)
      continue()
    endif()
    if(header MATCHES "/kernels/")
      message(FATAL_ERROR "A public header includes ${header}, which is not installed")
    endif()
    list(APPEND headers ${header})
    file(STRINGS ${PROJECT_SOURCE_DIR}/${header} includes REGEX "^#include \"ip_volr/")
    foreach(include ${includes})
      string(REGEX REPLACE "^#include \"(.*)\".*" "\\1" included "${include}")
      list(APPEND pending ${included})
    endforeach()
  endwhile()
  list(SORT headers)
  set(${result} ${headers} PARENT_SCOPE)
endfunction()

ip_volr_public_headers(library_headers)
file(GLOB host_headers CONFIGURE_DEPENDS RELATIVE ${PROJECT_SOURCE_DIR} ${PROJECT_SOURCE_DIR}/host/*.h)
set(IP_VOLR_PUBLIC_HEADERS ${host_headers} host/reference/settings.h ${library_headers})

# Headers keep their folders below include/ip_volr, so that hosts include "host/..." and "ip_volr/..." as the project does.
foreach(header ${IP_VOLR_PUBLIC_HEADERS})
  cmake_path(GET header PARENT_PATH folder)
  install(FILES ${PROJECT_SOURCE_DIR}/${header} DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}/ip_volr/${folder}
    COMPONENT ip_volr_package)
endforeach()

set_target_properties(ip_volr reference_host PROPERTIES
  VERSION ${PROJECT_VERSION} SOVERSION ${PROJECT_VERSION_MAJOR} INSTALL_RPATH "$ORIGIN")
install(TARGETS ip_volr reference_host EXPORT ip_volr_targets
  LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR} COMPONENT ip_volr_package NAMELINK_COMPONENT ip_volr_package
  ARCHIVE DESTINATION ${CMAKE_INSTALL_LIBDIR} COMPONENT ip_volr_package
  RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR} COMPONENT ip_volr_package)

set(package_folder ${CMAKE_INSTALL_LIBDIR}/cmake/ip_volr)
install(EXPORT ip_volr_targets FILE ip_volr-targets.cmake NAMESPACE ip_volr:: DESTINATION ${package_folder}
  COMPONENT ip_volr_package)
configure_package_config_file(${PROJECT_SOURCE_DIR}/cmake/ip_volr-config.cmake.in
  ${PROJECT_BINARY_DIR}/ip_volr-config.cmake INSTALL_DESTINATION ${package_folder})
write_basic_package_version_file(${PROJECT_BINARY_DIR}/ip_volr-config-version.cmake COMPATIBILITY SameMinorVersion)
install(FILES ${PROJECT_BINARY_DIR}/ip_volr-config.cmake ${PROJECT_BINARY_DIR}/ip_volr-config-version.cmake
  DESTINATION ${package_folder} COMPONENT ip_volr_package)
