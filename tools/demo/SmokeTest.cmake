# Runs the demo for a few frames with --json and checks that the output parses
# and that the library hid no box that the exact reference sees clearly.
#   cmake -DDEMO=path/to/zelk-demo -P SmokeTest.cmake
execute_process(COMMAND ${DEMO} --frames 40 --width 320 --height 192 --json
                OUTPUT_VARIABLE out ERROR_VARIABLE err RESULT_VARIABLE rc)
if(NOT rc EQUAL 0)
  message(FATAL_ERROR "zelk-demo failed (${rc}): ${err}")
endif()
string(JSON frames ERROR_VARIABLE jsonError GET "${out}" frames)
if(jsonError)
  message(FATAL_ERROR "not JSON: ${jsonError}\n${out}")
endif()
string(JSON severe GET "${out}" false_occlusions_severe)
string(JSON visible GET "${out}" truly_visible)
string(JSON hidden GET "${out}" truly_hidden)
string(JSON onScreen GET "${out}" culling_efficiency_on_screen)
string(JSON warm GET "${out}" timings_ms warm render median)
if(NOT frames EQUAL 40 OR NOT severe EQUAL 0 OR visible EQUAL 0 OR hidden EQUAL 0 OR onScreen LESS 0.5)
  message(FATAL_ERROR "unexpected figures: frames ${frames}, severe false occlusions ${severe}, "
                      "visible ${visible}, hidden ${hidden}, on-screen efficiency ${onScreen}\n${out}")
endif()
message(STATUS "frames ${frames}, ${visible} visible, ${hidden} hidden, on-screen efficiency ${onScreen}, "
               "warm render ${warm} ms")
