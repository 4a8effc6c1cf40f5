# Helpers that declare the project's libraries and tests. A source or test
# file that does not exist is an error at configure time, never skipped.

# lumetry_library(<name> SOURCES <files...> DEPS <targets...> [PRIVATE_DEPS <targets...>])
# A static library of the utility layer. Paths are relative to Utility/src.
function(lumetry_library name)
  cmake_parse_arguments(ARG "" "" "SOURCES;DEPS;PRIVATE_DEPS" ${ARGN})
  if(NOT ARG_SOURCES)
    message(FATAL_ERROR "lumetry_library(${name}): no SOURCES")
  endif()
  list(TRANSFORM ARG_SOURCES PREPEND "${LUMETRY_UTILITY_DIR}/")
  add_library(${name} STATIC ${ARG_SOURCES})
  target_include_directories(${name} PUBLIC "${LUMETRY_UTILITY_DIR}")
  target_link_libraries(${name} PUBLIC ${ARG_DEPS} PRIVATE lumetry_warnings ${ARG_PRIVATE_DEPS})
endfunction()

# lumetry_test(<Name> [PROGRAMS] [LOCK <resource>] DEPS <targets...>):
# tests/<Name>.cpp as one GoogleTest executable. PROGRAMS: the suite drives
# the built programs, which are then built first. LOCK: its cases never run
# at the same time as other tests holding the same resource.
function(lumetry_test name)
  cmake_parse_arguments(ARG "PROGRAMS" "LOCK" "DEPS" ${ARGN})
  add_executable(${name} "${CMAKE_CURRENT_SOURCE_DIR}/${name}.cpp")
  target_link_libraries(${name} PRIVATE ${ARG_DEPS} lumetry_test_support
                        GTest::gtest GTest::gmock GTest::gtest_main lumetry_warnings)
  target_compile_definitions(${name} PRIVATE
    CRASH_PROCESSOR_PATH="$<TARGET_FILE:crash-processor>"
    LUMETRY_TRACE=$<BOOL:${LUMETRY_TRACE}>
    TOOLS_DIR="${PROJECT_BINARY_DIR}/tools")
  if(ARG_PROGRAMS)
    get_property(tools GLOBAL PROPERTY LUMETRY_TOOL_TARGETS)
    add_dependencies(${name} crash-processor ${tools})
  endif()
  set(properties TIMEOUT 300)
  if(ARG_LOCK)
    list(APPEND properties RESOURCE_LOCK ${ARG_LOCK})
  endif()
  gtest_discover_tests(${name} DISCOVERY_TIMEOUT 60 PROPERTIES ${properties})
endfunction()
