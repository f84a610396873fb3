# Installs the build into a scratch prefix, then builds examples/consumer
# against it with find_package and a one-file program with pkg-config, and
# runs both: a broken install, package config or .pc file fails here.
set(prefix ${BUILD_DIR}/install-check/prefix)
set(consumer ${BUILD_DIR}/install-check/consumer)
file(REMOVE_RECURSE ${BUILD_DIR}/install-check)

function(run)
  execute_process(COMMAND ${ARGN} RESULT_VARIABLE result OUTPUT_VARIABLE out ERROR_VARIABLE err)
  if(NOT result EQUAL 0)
    message(FATAL_ERROR "failed: ${ARGN}\n${out}\n${err}")
  endif()
  set(last_output "${out}" PARENT_SCOPE)
endfunction()

run(${CMAKE_COMMAND} --install ${BUILD_DIR} --prefix ${prefix})
foreach(header AvGlobals MediaInfo MediaReader Logger Settings AudioStream VideoStream Export DecodedFrames MediaInstance DecodedVideo DecodedAudio TimeOrderedFrameList Player)
  if(NOT EXISTS ${prefix}/include/MolvaneAV/${header}.h)
    message(FATAL_ERROR "header ${header}.h not installed")
  endif()
endforeach()

run(${CMAKE_COMMAND} -G Ninja -S ${SOURCE_DIR}/examples/consumer -B ${consumer}
    -DCMAKE_PREFIX_PATH=${prefix})
run(${CMAKE_COMMAND} --build ${consumer})
run(${consumer}/consumer ${SAMPLE})
if(NOT last_output MATCHES "1 video, 1 audio")
  message(FATAL_ERROR "consumer printed: ${last_output}")
endif()

set(ENV{PKG_CONFIG_PATH} ${prefix}/${LIBDIR}/pkgconfig)
run(pkg-config --cflags --libs molvaneav)
string(STRIP "${last_output}" flags)
separate_arguments(flags UNIX_COMMAND "${flags}")
run(c++ -std=c++17 -fPIC ${SOURCE_DIR}/examples/consumer/main.cpp ${flags}
    -Wl,-rpath,${prefix}/${LIBDIR} -o ${consumer}/consumer-pc)
run(${consumer}/consumer-pc ${SAMPLE})
message(STATUS "install ok")
