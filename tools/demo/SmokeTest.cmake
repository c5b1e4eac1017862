# Runs the demo for a few frames with --json and checks that the output parses
# and that the library hid no box that the exact reference sees clearly, apart
# from those its designed rules explain: the masked rasteriser's vertex
# snapping, the rapid buffer's mirrored block columns, and boxes seen only
# where they lie on an occluder's surface (ties at the rapid buffer's depth
# precision), all counted by the demo. Two more are tolerated: the baked
# path's coverage-table buckets (up to 0.67 px past an edge) and quantised
# vertices, which the demo does not classify, can add a silhouette pixel.
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
string(JSON bySnapping GET "${out}" false_occlusions_severe_by_snapping)
string(JSON byColumns GET "${out}" false_occlusions_severe_by_column_rule)
string(JSON byTies GET "${out}" false_occlusions_severe_by_depth_tie)
math(EXPR unexplained "${severe} - ${bySnapping} - ${byColumns} - ${byTies}")
string(JSON visible GET "${out}" truly_visible)
string(JSON hidden GET "${out}" truly_hidden)
string(JSON onScreen GET "${out}" culling_efficiency_on_screen)
string(JSON warm GET "${out}" timings_ms warm render median)
if(NOT frames EQUAL 40 OR unexplained GREATER 2 OR visible EQUAL 0 OR hidden EQUAL 0 OR onScreen LESS 0.5)
  message(FATAL_ERROR "unexpected figures: frames ${frames}, severe false occlusions ${severe} "
                      "(${unexplained} unexplained), "
                      "visible ${visible}, hidden ${hidden}, on-screen efficiency ${onScreen}\n${out}")
endif()
message(STATUS "frames ${frames}, severe false occlusions ${severe} (${byColumns} by the column rule, "
               "${bySnapping} by snapping), ${visible} visible, ${hidden} hidden, on-screen efficiency ${onScreen}, "
               "warm render ${warm} ms")
