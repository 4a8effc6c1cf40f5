# Helpers that declare the project's libraries, tests and tools.

# lumetry_library(<name> SOURCES <files...> DEPS <targets...> [PRIVATE_DEPS <targets...>])
# A static library of the utility layer. Paths are relative to Utility/src.
function(lumetry_library name)
  cmake_parse_arguments(ARG "" "" "SOURCES;DEPS;PRIVATE_DEPS" ${ARGN})
  set(sources "")
  foreach(src IN LISTS ARG_SOURCES)
    set(full "${LUMETRY_UTILITY_DIR}/${src}")
    if(EXISTS "${full}")
      list(APPEND sources "${full}")
    endif()
  endforeach()
  if(sources)
    add_library(${name} STATIC ${sources})
    target_include_directories(${name} PUBLIC "${LUMETRY_UTILITY_DIR}")
    target_link_libraries(${name} PUBLIC ${ARG_DEPS} PRIVATE lumetry_warnings ${ARG_PRIVATE_DEPS})
  else()
    add_library(${name} INTERFACE)
    target_include_directories(${name} INTERFACE "${LUMETRY_UTILITY_DIR}")
    target_link_libraries(${name} INTERFACE ${ARG_DEPS})
  endif()
endfunction()

# lumetry_test(<Name> DEPS <targets...>): tests/<Name>.cpp as one GoogleTest
# executable; skipped while the file does not exist.
function(lumetry_test name)
  cmake_parse_arguments(ARG "PROGRAMS" "" "DEPS" ${ARGN})
  set(src "${CMAKE_CURRENT_SOURCE_DIR}/${name}.cpp")
  if(NOT EXISTS "${src}")
    return()
  endif()
  add_executable(${name} "${src}")
  target_link_libraries(${name} PRIVATE ${ARG_DEPS} lumetry_test_support
                        GTest::gtest GTest::gmock GTest::gtest_main lumetry_warnings)
  target_compile_definitions(${name} PRIVATE
    CRASH_PROCESSOR_PATH="$<TARGET_FILE:crash-processor>"
    TOOLS_DIR="${CMAKE_BINARY_DIR}/tools")
  if(ARG_PROGRAMS)
    # Drives the built programs: they must be built first.
    get_property(tools GLOBAL PROPERTY LUMETRY_TOOL_TARGETS)
    add_dependencies(${name} crash-processor ${tools})
  endif()
  gtest_discover_tests(${name} DISCOVERY_TIMEOUT 60 PROPERTIES TIMEOUT 300)
endfunction()
