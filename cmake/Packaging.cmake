# The Debian package: `cpack -G DEB` in a build configured with
# CMAKE_INSTALL_PREFIX=/usr (scripts/package does it all). CPack packages
# whatever install() rules the project has; this file adds what Debian wants
# around them (copyright, changelog, conffiles) and the diagnostic-log
# switch: VxLog.config beside each installed program is a symbolic link into
# the system configuration directory, so an administrator turns logging on
# by creating one file there (a dangling link counts as absent).
# Include it after every add_subdirectory().
include(GNUInstallDirs)

set(LUMETRY_DEB_PACKAGE "lumetry")
set(LUMETRY_DEB_RELEASE "1")
set(LUMETRY_DEB_VERSION "${PROJECT_VERSION}-${LUMETRY_DEB_RELEASE}")
set(LUMETRY_DEB_MAINTAINER "Quorvik Lumetry team <lumetry@quorvik.com>")
set(LUMETRY_CONFIG_DIR "${CMAKE_INSTALL_FULL_SYSCONFDIR}/lumetry")
set(LUMETRY_DOC_DIR "${CMAKE_INSTALL_DATAROOTDIR}/doc/${LUMETRY_DEB_PACKAGE}")
set(LUMETRY_DEB_DIR "${CMAKE_CURRENT_LIST_DIR}/debian")

# lumetry_install_log_switch(<directory below the prefix>): installs
# <dir>/VxLog.config -> <sysconfdir>/lumetry/VxLog.config.
function(lumetry_install_log_switch dir)
  install(CODE "
    set(link \"\$ENV{DESTDIR}\${CMAKE_INSTALL_PREFIX}/${dir}/VxLog.config\")
    get_filename_component(parent \"\${link}\" DIRECTORY)
    file(MAKE_DIRECTORY \"\${parent}\")
    file(REMOVE \"\${link}\")
    message(STATUS \"Installing: \${link} -> ${LUMETRY_CONFIG_DIR}/VxLog.config\")
    file(CREATE_LINK \"${LUMETRY_CONFIG_DIR}/VxLog.config\" \"\${link}\" SYMBOLIC)")
endfunction()

lumetry_install_log_switch("${CMAKE_INSTALL_BINDIR}")
# The uploader's main bundle is its application directory.
lumetry_install_log_switch("lib/lumetry/LogCourier2.app")
install(FILES "${LUMETRY_DEB_DIR}/VxLog.config.example" DESTINATION "${LUMETRY_CONFIG_DIR}")

# Debian's documentation files: the machine-readable copyright and the
# changelog, compressed with gzip -9n (no name, no time stamp).
configure_file("${LUMETRY_DEB_DIR}/changelog.in" "${PROJECT_BINARY_DIR}/debian/changelog.Debian"
               @ONLY)
add_custom_command(
  OUTPUT "${PROJECT_BINARY_DIR}/debian/changelog.Debian.gz"
  COMMAND gzip -9nkf "${PROJECT_BINARY_DIR}/debian/changelog.Debian"
  DEPENDS "${PROJECT_BINARY_DIR}/debian/changelog.Debian"
  VERBATIM)
add_custom_target(lumetry_deb_changelog ALL DEPENDS "${PROJECT_BINARY_DIR}/debian/changelog.Debian.gz")
install(FILES "${LUMETRY_DEB_DIR}/copyright" "${PROJECT_BINARY_DIR}/debian/changelog.Debian.gz"
        DESTINATION "${LUMETRY_DOC_DIR}")
# The one justified override: the crash processor's static Expat.
install(FILES "${LUMETRY_DEB_DIR}/lintian-overrides"
        DESTINATION "${CMAKE_INSTALL_DATAROOTDIR}/lintian/overrides" RENAME ${LUMETRY_DEB_PACKAGE})
file(WRITE "${PROJECT_BINARY_DIR}/debian/conffiles"
     "${LUMETRY_CONFIG_DIR}/VxLog.config.example\n")
set(LUMETRY_DEB_CONTROL "${PROJECT_BINARY_DIR}/debian/conffiles" "${LUMETRY_DEB_DIR}/postrm")

# A shared library (the host kit's) is registered through the ldconfig
# trigger; the do-nothing postinst keeps CPack from writing ldconfig calls
# into the maintainer scripts instead, which lintian reports as an error.
function(lumetry_find_shared_libraries dir out)
  set(found "")
  get_property(targets DIRECTORY "${dir}" PROPERTY BUILDSYSTEM_TARGETS)
  foreach(target IN LISTS targets)
    get_target_property(type ${target} TYPE)
    if(type STREQUAL "SHARED_LIBRARY")
      list(APPEND found ${target})
    endif()
  endforeach()
  get_property(subdirs DIRECTORY "${dir}" PROPERTY SUBDIRECTORIES)
  foreach(sub IN LISTS subdirs)
    lumetry_find_shared_libraries("${sub}" below)
    list(APPEND found ${below})
  endforeach()
  set(${out} "${found}" PARENT_SCOPE)
endfunction()
lumetry_find_shared_libraries("${PROJECT_SOURCE_DIR}" LUMETRY_SHARED_LIBRARIES)
if(LUMETRY_SHARED_LIBRARIES)
  list(APPEND LUMETRY_DEB_CONTROL "${LUMETRY_DEB_DIR}/postinst" "${LUMETRY_DEB_DIR}/triggers")
endif()

set(CPACK_PACKAGE_NAME "${LUMETRY_DEB_PACKAGE}")
set(CPACK_PACKAGE_VENDOR "Quorvik")
set(CPACK_PACKAGE_VERSION "${PROJECT_VERSION}")
set(CPACK_PACKAGE_CONTACT "${LUMETRY_DEB_MAINTAINER}")
set(CPACK_PACKAGE_DESCRIPTION_SUMMARY "desktop usage-telemetry client: crash processor and tools")
set(CPACK_PACKAGE_DESCRIPTION
    "The client side of a desktop usage-telemetry system. When a participating\n"
    "host application crashes, crash-processor turns the session files it left\n"
    "into crash usage logs, which the uploader LogCourier2 sends to the server.\n"
    "The package also holds the host kit for applications that take part, and\n"
    "operator tools: ulog-decode, logcourier-config, lumetry-sysinfo and\n"
    "lumetry-defaults.")
string(REPLACE ";" "" CPACK_PACKAGE_DESCRIPTION "${CPACK_PACKAGE_DESCRIPTION}")
set(CPACK_RESOURCE_FILE_LICENSE "${PROJECT_SOURCE_DIR}/LICENSE")
set(CPACK_PACKAGING_INSTALL_PREFIX "${CMAKE_INSTALL_PREFIX}")
set(CPACK_STRIP_FILES ON)
set(CPACK_DEBIAN_PACKAGE_NAME "${LUMETRY_DEB_PACKAGE}")
set(CPACK_DEBIAN_PACKAGE_RELEASE "${LUMETRY_DEB_RELEASE}")
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_SECTION "utils")
set(CPACK_DEBIAN_PACKAGE_PRIORITY "optional")
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)
set(CPACK_DEBIAN_PACKAGE_GENERATE_SHLIBS ON)
set(CPACK_DEBIAN_PACKAGE_CONTROL_STRICT_PERMISSION ON)
set(CPACK_DEBIAN_PACKAGE_CONTROL_EXTRA "${LUMETRY_DEB_CONTROL}")
set(CPACK_GENERATOR "DEB")
include(CPack)
