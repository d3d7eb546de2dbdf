# Build helpers shared by every directory of the project.

# ovf_component(<name> SOURCES ... [LIBS ...])
# A static, position-independent library for one concern. Components link only the headers and third-party
# libraries; the host runtime comes from libsuitecommon.so in the plug-in and from the sc_* libraries in tests,
# so that the runtime (and its log sink) exists exactly once in every process.
function(ovf_component name)
  cmake_parse_arguments(C "" "" "SOURCES;LIBS" ${ARGN})
  add_library(${name} STATIC ${C_SOURCES})
  target_link_libraries(${name} PUBLIC ovf_headers ${C_LIBS})
endfunction()

# ovf_whole_archive_shared(<target> OUTPUT_NAME <n> COMPONENTS ... [LIBS ...])
# A shared library made of the object files of every component that exists. Objects rather than archives, so
# that a component's link to another component (which tests rely on) never puts anything in twice.
function(ovf_whole_archive_shared target)
  cmake_parse_arguments(S "" "OUTPUT_NAME" "COMPONENTS;LIBS" ${ARGN})
  set(objects)
  foreach(c IN LISTS S_COMPONENTS)
    if(TARGET ${c})
      list(APPEND objects "$<TARGET_OBJECTS:${c}>")
    endif()
  endforeach()
  file(WRITE "${CMAKE_CURRENT_BINARY_DIR}/${target}_empty.cpp" "// Anchor for a library made of components.\n")
  add_library(${target} SHARED "${CMAKE_CURRENT_BINARY_DIR}/${target}_empty.cpp" ${objects})
  set_target_properties(${target} PROPERTIES OUTPUT_NAME ${S_OUTPUT_NAME}
    LIBRARY_OUTPUT_DIRECTORY "${CMAKE_BINARY_DIR}/lib")
  target_link_libraries(${target} PRIVATE ovf_headers ${S_LIBS})
  target_link_options(${target} PRIVATE -Wl,--no-undefined)
endfunction()

# ovf_gtest(<name> SOURCES ... LIBS ... [LABELS ...] [RESOURCE_LOCK ...] [ENVIRONMENT VAR=value ...])
function(ovf_gtest name)
  cmake_parse_arguments(T "" "" "SOURCES;LIBS;LABELS;RESOURCE_LOCK;ENVIRONMENT" ${ARGN})
  add_executable(${name} ${T_SOURCES})
  target_link_libraries(${name} PRIVATE ovf_test_support ${T_LIBS} GTest::gtest GTest::gmock GTest::gtest_main)
  set(props TIMEOUT 300)
  if(T_LABELS)
    list(APPEND props LABELS "${T_LABELS}")
  endif()
  if(T_RESOURCE_LOCK)
    list(APPEND props RESOURCE_LOCK "${T_RESOURCE_LOCK}")
  endif()
  if(T_ENVIRONMENT)
    list(APPEND props ENVIRONMENT "${T_ENVIRONMENT}")
  endif()
  gtest_discover_tests(${name} DISCOVERY_TIMEOUT 60 PROPERTIES ${props})
endfunction()
