# Installs the package of the build tree BUILD below WORK, builds the example SOURCE against it and runs it.
function(run)
  execute_process(COMMAND ${ARGN} RESULT_VARIABLE status OUTPUT_VARIABLE output ERROR_VARIABLE output)
  if(NOT status EQUAL 0)
    list(JOIN ARGN " " command)
    message(FATAL_ERROR "${command}: ${status}\n${output}")
  endif()
endfunction()

file(REMOVE_RECURSE ${WORK})
run(${CMAKE_COMMAND} --install ${BUILD} --prefix ${WORK}/prefix --component ip_volr_package)
run(${CMAKE_COMMAND} -S ${SOURCE} -B ${WORK}/build -G ${GENERATOR} -D CMAKE_CXX_COMPILER=${COMPILER}
  -D CMAKE_BUILD_TYPE=Release -D CMAKE_PREFIX_PATH=${WORK}/prefix)
run(${CMAKE_COMMAND} --build ${WORK}/build)

# The picture is a portable pixmap of 256 by 256 pixels.
run(${WORK}/build/minimal_host ${WORK}/picture.ppm)
file(SIZE ${WORK}/picture.ppm size)
if(NOT size EQUAL 196623)
  message(FATAL_ERROR "The picture has ${size} bytes")
endif()
