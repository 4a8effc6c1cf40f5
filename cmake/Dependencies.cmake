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

# Expat and libuuid are linked from their Debian static archives, so the
# programs load no more shared objects at start-up than they must (libplist
# has no archive in Debian and stays shared). Without the archives the
# shared libraries are used as before.
option(LUMETRY_STATIC_DEPS "Link Expat and libuuid from their static archives" ON)
if(LUMETRY_STATIC_DEPS)
  find_library(LUMETRY_EXPAT_ARCHIVE NAMES libexpat.a)
  find_library(LUMETRY_UUID_ARCHIVE NAMES libuuid.a)
  if(LUMETRY_EXPAT_ARCHIVE)
    set_target_properties(EXPAT::EXPAT PROPERTIES IMPORTED_LOCATION "${LUMETRY_EXPAT_ARCHIVE}")
  else()
    message(STATUS "libexpat.a not found: Expat is linked as a shared library")
  endif()
  if(LUMETRY_UUID_ARCHIVE)
    set_property(TARGET PkgConfig::UUID PROPERTY INTERFACE_LINK_LIBRARIES "${LUMETRY_UUID_ARCHIVE}")
  else()
    message(STATUS "libuuid.a not found: libuuid is linked as a shared library")
  endif()
endif()
