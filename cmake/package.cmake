# The Debian package: `cmake --build build/release --target package` makes
# tarneltest_<version>_amd64.deb. Debian's checker (lintian) asks for the
# man page and the changelog compressed as gzip -9n does (no name, no time),
# a copyright file, and a maintainer who can be mailed.
set(TARNEL_MAINTAINER "tarneltest maintainers <maintainers@users.noreply.c-seed-0cc4ef19.example>"
    CACHE STRING "The package's maintainer, as Debian writes it: name <address>")
# The changelog's date: the revision's own, so that a build is reproducible.
set(TARNEL_DATE "")
if(GIT_FOUND AND EXISTS ${PROJECT_SOURCE_DIR}/.git)
  execute_process(COMMAND ${GIT_EXECUTABLE} log -1 --format=%aD WORKING_DIRECTORY ${PROJECT_SOURCE_DIR}
                  OUTPUT_VARIABLE TARNEL_DATE OUTPUT_STRIP_TRAILING_WHITESPACE ERROR_QUIET)
endif()
if(TARNEL_DATE STREQUAL "")
  string(TIMESTAMP TARNEL_DATE "%a, %d %b %Y %H:%M:%S +0000" UTC)
endif()
configure_file(deploy/debian/changelog.in changelog @ONLY)

set(compressed)
foreach(file ${PROJECT_SOURCE_DIR}/docs/tarneltest.1 ${CMAKE_CURRENT_BINARY_DIR}/changelog)
  get_filename_component(name ${file} NAME)
  add_custom_command(OUTPUT ${name}.gz COMMAND gzip -9n -c ${file} > ${name}.gz DEPENDS ${file} VERBATIM)
  list(APPEND compressed ${CMAKE_CURRENT_BINARY_DIR}/${name}.gz)
endforeach()
add_custom_target(compressed_docs ALL DEPENDS ${compressed})

install(TARGETS tarneltest RUNTIME DESTINATION bin)
install(FILES ${CMAKE_CURRENT_BINARY_DIR}/tarneltest.1.gz DESTINATION share/man/man1)
install(FILES ${CMAKE_CURRENT_BINARY_DIR}/changelog.gz deploy/debian/copyright DESTINATION share/doc/tarneltest)
install(FILES deploy/systemd/tarneltest.service deploy/systemd/tarneltest.timer DESTINATION lib/systemd/system)

set(CPACK_GENERATOR DEB)
set(CPACK_PACKAGE_NAME tarneltest)
set(CPACK_PACKAGE_VERSION ${TARNEL_BUILD})
set(CPACK_PACKAGING_INSTALL_PREFIX /usr)
set(CPACK_PACKAGE_CONTACT ${TARNEL_MAINTAINER})
set(CPACK_PACKAGE_DESCRIPTION_SUMMARY "second-level cache test of every processor")
set(CPACK_PACKAGE_DESCRIPTION "tarneltest checks the L2 cache of every processor the machine lets
it use, all at once, with stress and march algorithms sized from each
processor's own L2 geometry. It names the part that failed, never passes
when it could not test, runs as a burn-in for a given time, and comes with
a weekly systemd timer and metrics for Prometheus.")
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_SECTION admin)
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)
set(CPACK_STRIP_FILES ON)
# The timer enabled and removed through deb-systemd-helper, as Debian's
# packages do, so that removing the package leaves no enabled timer.
set(CPACK_DEBIAN_PACKAGE_CONTROL_EXTRA ${PROJECT_SOURCE_DIR}/deploy/debian/postinst
    ${PROJECT_SOURCE_DIR}/deploy/debian/prerm ${PROJECT_SOURCE_DIR}/deploy/debian/postrm)
set(CPACK_DEBIAN_PACKAGE_CONTROL_STRICT_PERMISSION ON)
set(CPACK_DEBIAN_PACKAGE_DEPENDS "init-system-helpers (>= 1.54~)")
include(CPack)
