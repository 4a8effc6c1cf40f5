# Manual pages: man/<name>.<section>.scd, written in scdoc, built into
# <name>.<section>.gz (gzip -9n: no name or time stamp, as Debian wants) and
# installed into share/man/man<section>. Without scdoc they are skipped.
find_program(LUMETRY_SCDOC scdoc)
find_program(LUMETRY_GZIP gzip)
if(NOT LUMETRY_SCDOC OR NOT LUMETRY_GZIP)
  message(WARNING "scdoc or gzip not found: the manual pages are not built")
  return()
endif()

file(GLOB LUMETRY_MAN_SOURCES CONFIGURE_DEPENDS "${PROJECT_SOURCE_DIR}/man/*.scd")
set(LUMETRY_MAN_OUTPUTS "")
foreach(src IN LISTS LUMETRY_MAN_SOURCES)
  get_filename_component(page "${src}" NAME)
  string(REGEX REPLACE "\\.scd$" "" page "${page}")  # name.section
  string(REGEX MATCH "[0-9]$" section "${page}")
  set(out "${CMAKE_CURRENT_BINARY_DIR}/man/${page}.gz")
  # The page date comes from SOURCE_DATE_EPOCH when the caller sets it, so
  # a packaging run can make the pages reproducible.
  add_custom_command(
    OUTPUT "${out}"
    COMMAND "${CMAKE_COMMAND}" -E make_directory "${CMAKE_CURRENT_BINARY_DIR}/man"
    COMMAND sh -c "\"$0\" < \"$1\" > \"$2\"" "${LUMETRY_SCDOC}" "${src}"
            "${CMAKE_CURRENT_BINARY_DIR}/man/${page}"
    COMMAND "${LUMETRY_GZIP}" -9nf "${CMAKE_CURRENT_BINARY_DIR}/man/${page}"
    DEPENDS "${src}"
    COMMENT "Manual page ${page}"
    VERBATIM)
  list(APPEND LUMETRY_MAN_OUTPUTS "${out}")
  install(FILES "${out}" DESTINATION "${CMAKE_INSTALL_MANDIR}/man${section}")
endforeach()
add_custom_target(lumetry_man ALL DEPENDS ${LUMETRY_MAN_OUTPUTS})
