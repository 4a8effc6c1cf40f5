# Third-party libraries, all from Debian packages (scripts/install-deps).
find_package(PkgConfig REQUIRED)
find_package(EXPAT REQUIRED)
find_package(Boost 1.74 REQUIRED COMPONENTS date_time)
pkg_check_modules(PLIST REQUIRED IMPORTED_TARGET libplist-2.0)
pkg_check_modules(UUID REQUIRED IMPORTED_TARGET uuid)
if(LUMETRY_BUILD_TESTS)
  find_package(GTest REQUIRED)
endif()
if(LUMETRY_BUILD_BENCH)
  find_package(benchmark REQUIRED)
endif()

# Expat and libuuid as the utility layer links them: from their Debian static
# archives into a program whose target property LUMETRY_STATIC_DEPS is on
# (the crash processor, whose start-up must load as few shared objects as it
# can; libplist has no archive in Debian and stays shared), as shared
# libraries into every other program. Without the archives the shared
# libraries are used everywhere.
find_library(LUMETRY_EXPAT_ARCHIVE NAMES libexpat.a)
find_library(LUMETRY_UUID_ARCHIVE NAMES libuuid.a)
set(lumetry_static_wanted "$<BOOL:$<TARGET_PROPERTY:LUMETRY_STATIC_DEPS>>")
add_library(lumetry_expat INTERFACE)
add_library(lumetry_uuid INTERFACE)
if(LUMETRY_EXPAT_ARCHIVE AND LUMETRY_UUID_ARCHIVE)
  target_link_libraries(lumetry_expat INTERFACE
    "$<IF:${lumetry_static_wanted},${LUMETRY_EXPAT_ARCHIVE},EXPAT::EXPAT>")
  target_link_libraries(lumetry_uuid INTERFACE
    "$<IF:${lumetry_static_wanted},${LUMETRY_UUID_ARCHIVE},PkgConfig::UUID>")
  target_include_directories(lumetry_uuid INTERFACE ${UUID_INCLUDE_DIRS})
else()
  message(STATUS "libexpat.a or libuuid.a not found: linked as shared libraries")
  target_link_libraries(lumetry_expat INTERFACE EXPAT::EXPAT)
  target_link_libraries(lumetry_uuid INTERFACE PkgConfig::UUID)
endif()
