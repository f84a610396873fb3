# Fails when libMolvaneAV exports a symbol outside the host-facing classes,
# or when one of those classes is missing from the export table.
set(ALLOWED AvGlobals MediaInfo MediaReader Logger Settings AudioStream VideoStream
            MediaInstance DecodedVideoFrame DecodedAudioFrame DecodedVideo DecodedAudio
            TimeOrderedFrameList)
set(REQUIRED AvGlobals MediaInfo MediaReader Logger Settings AudioStream VideoStream
             DecodedVideoFrame DecodedAudioFrame MediaInstance DecodedVideo DecodedAudio)

execute_process(COMMAND nm -DC --defined-only ${LIBRARY}
  OUTPUT_VARIABLE symbols RESULT_VARIABLE result)
if(NOT result EQUAL 0)
  message(FATAL_ERROR "nm failed on ${LIBRARY}")
endif()

string(REPLACE "\n" ";" lines "${symbols}")
set(found "")
foreach(line IN LISTS lines)
  if(line STREQUAL "")
    continue()
  endif()
  string(REGEX REPLACE "^[0-9a-f]+ (.) " "" name "${line}")
  string(REGEX MATCH "^[0-9a-f]+ (.) " _ "${line}")
  set(kind "${CMAKE_MATCH_1}")
  # Weak and unique symbols are template and inline instances pulled in from
  # Qt and the standard library headers: not part of our interface.
  if(kind MATCHES "[WVu]")
    continue()
  endif()
  # Compiler-generated type information and vtables name the class after "for".
  string(REGEX REPLACE "^(typeinfo name for|typeinfo for|vtable for) " "" name "${name}")
  string(REGEX MATCH "^[A-Za-z_][A-Za-z0-9_]*" owner "${name}")
  list(FIND ALLOWED "${owner}" index)
  if(index EQUAL -1)
    message(FATAL_ERROR "unexpected export: ${line}")
  endif()
  list(APPEND found "${owner}")
endforeach()

foreach(class IN LISTS REQUIRED)
  list(FIND found "${class}" index)
  if(index EQUAL -1)
    message(FATAL_ERROR "class ${class} is not exported")
  endif()
endforeach()
message(STATUS "exports ok")
