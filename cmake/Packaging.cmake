# Packages made by CPack from the same tree: on Linux a Debian package
# (tarnlift_<version>_amd64.deb, for Debian 12), on Windows a zip with both
# programs. scripts/package.sh runs `cpack` in both build trees.
include(GNUInstallDirs)

set(TARNLIFT_PACKAGING_DIR ${PROJECT_SOURCE_DIR}/packaging)
set(TARNLIFT_DEB_MAINTAINER "Tarnlift developers <tarnlift@example.org>")
# "1.0beta1" sorts before "1.0" only when the stage is written after a tilde.
string(REGEX REPLACE "^([0-9.]+)([a-z])" "\\1~\\2" TARNLIFT_UPSTREAM_VERSION "${TARNLIFT_VERSION_WORDS}")
set(TARNLIFT_DEB_VERSION "${TARNLIFT_UPSTREAM_VERSION}-1")

set(CPACK_PACKAGE_NAME tarnlift)
set(CPACK_PACKAGE_VENDOR "The Tarnlift developers")
set(CPACK_PACKAGE_VERSION "${TARNLIFT_VERSION_WORDS}")
set(CPACK_PACKAGE_DESCRIPTION_SUMMARY "installation server for Brisvane routers")
# Lines of the long description, kept under 80 columns.
string(JOIN "\n" CPACK_PACKAGE_DESCRIPTION
  "Tarnlift installs the Brisvane router operating system onto routers that"
  "share an Ethernet segment with this machine. It answers their network boot"
  "(BOOTP/PXE and TFTP), lists the routers that announce themselves and sends"
  "them the chosen package files over its own UDP installation protocol."
  "The tarnlift command runs the installation server without a window, for"
  "servers and automation.")
set(CPACK_RESOURCE_FILE_LICENSE ${PROJECT_SOURCE_DIR}/LICENSE)
set(CPACK_STRIP_FILES ON)
set(CPACK_OUTPUT_FILE_PREFIX ${CMAKE_BINARY_DIR}/dist)

if(WIN32)
  # The zip: both programs, a README and the licence in Windows line endings,
  # and an empty bootimages folder holding only its note.
  set(CPACK_GENERATOR ZIP)
  set(CPACK_SYSTEM_NAME win64)
  set(CPACK_INCLUDE_TOPLEVEL_DIRECTORY ON)
  set(crlf_dir ${CMAKE_BINARY_DIR}/packaging)
  function(tarnlift_crlf_file source destination)
    file(READ ${source} text)
    string(CONFIGURE "${text}" text @ONLY)
    string(REPLACE "\r\n" "\n" text "${text}")
    string(REPLACE "\n" "\r\n" text "${text}")
    file(WRITE ${destination} "${text}")
  endfunction()
  tarnlift_crlf_file(${TARNLIFT_PACKAGING_DIR}/windows/README.txt ${crlf_dir}/README.txt)
  tarnlift_crlf_file(${PROJECT_SOURCE_DIR}/LICENSE ${crlf_dir}/LICENSE.txt)
  tarnlift_crlf_file(${TARNLIFT_PACKAGING_DIR}/windows/bootimages-note.txt ${crlf_dir}/bootimages/README.txt)
  install(TARGETS tarnlift_gui tarnlift_cli RUNTIME DESTINATION .)
  install(FILES ${crlf_dir}/README.txt ${crlf_dir}/LICENSE.txt DESTINATION .)
  install(FILES ${crlf_dir}/bootimages/README.txt DESTINATION bootimages)
  # The installer's source, for wixl (scripts/package.sh): the same files as
  # the zip, from the build tree.
  # wixl takes paths relative to the source file's folder.
  file(RELATIVE_PATH TARNLIFT_MSI_BIN ${CMAKE_BINARY_DIR}/packaging ${CMAKE_BINARY_DIR}/bin)
  file(RELATIVE_PATH TARNLIFT_MSI_TEXTS ${CMAKE_BINARY_DIR}/packaging ${crlf_dir})
  if(TARNLIFT_MSI_TEXTS STREQUAL "")
    set(TARNLIFT_MSI_TEXTS .)
  endif()
  configure_file(${PROJECT_SOURCE_DIR}/resources/tarnlift.ico ${CMAKE_BINARY_DIR}/packaging/tarnlift.ico COPYONLY)
  set(TARNLIFT_MSI_ICON tarnlift.ico)
  configure_file(${TARNLIFT_PACKAGING_DIR}/windows/tarnlift.wxs.in ${CMAKE_BINARY_DIR}/packaging/tarnlift.wxs @ONLY)
  file(WRITE ${CMAKE_BINARY_DIR}/packaging/msi-name.txt "tarnlift-${TARNLIFT_VERSION_WORDS}-win64.msi")
else()
  # The Debian package. The program and the boot image records install
  # themselves (cli/, netboot/); here come the manual page, the completion,
  # the documentation and the example service.
  set(CPACK_GENERATOR DEB)
  set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
  set(CPACK_DEBIAN_PACKAGE_VERSION "${TARNLIFT_UPSTREAM_VERSION}")
  set(CPACK_DEBIAN_PACKAGE_RELEASE 1)
  set(CPACK_DEBIAN_PACKAGE_ARCHITECTURE amd64)
  set(CPACK_DEBIAN_PACKAGE_MAINTAINER "${TARNLIFT_DEB_MAINTAINER}")
  set(CPACK_DEBIAN_PACKAGE_SECTION net)
  set(CPACK_DEBIAN_PACKAGE_PRIORITY optional)
  # libc6, libstdc++6 and libgcc-s1, as dpkg-shlibdeps finds them, and the
  # programs `tarnlift disk` runs: mkfs.fat and the mtools.
  set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)
  set(CPACK_DEBIAN_PACKAGE_DEPENDS "dosfstools, mtools")
  set(CPACK_DEBIAN_PACKAGE_CONTROL_STRICT_PERMISSION ON)
  set(CPACK_DEBIAN_COMPRESSION_TYPE xz)

  set(gen ${CMAKE_BINARY_DIR}/packaging)
  configure_file(${TARNLIFT_PACKAGING_DIR}/changelog.Debian.in ${gen}/changelog.Debian @ONLY)
  # Compressed without a time stamp, so that rebuilding changes nothing.
  add_custom_command(OUTPUT ${gen}/tarnlift.1.gz ${gen}/changelog.Debian.gz
    COMMAND ${CMAKE_COMMAND} -E copy ${TARNLIFT_PACKAGING_DIR}/tarnlift.1 ${gen}/tarnlift.1
    COMMAND gzip -9nf ${gen}/tarnlift.1
    COMMAND ${CMAKE_COMMAND} -E copy ${gen}/changelog.Debian ${gen}/changelog.Debian.tmp
    COMMAND gzip -9nf ${gen}/changelog.Debian.tmp
    COMMAND ${CMAKE_COMMAND} -E rename ${gen}/changelog.Debian.tmp.gz ${gen}/changelog.Debian.gz
    DEPENDS ${TARNLIFT_PACKAGING_DIR}/tarnlift.1 ${gen}/changelog.Debian
    COMMENT "Compressing the manual page and the changelog")
  add_custom_target(tarnlift_package_files ALL DEPENDS ${gen}/tarnlift.1.gz ${gen}/changelog.Debian.gz)

  set(doc ${CMAKE_INSTALL_DATADIR}/doc/tarnlift)
  install(FILES ${gen}/tarnlift.1.gz DESTINATION ${CMAKE_INSTALL_MANDIR}/man1)
  install(FILES ${TARNLIFT_PACKAGING_DIR}/tarnlift.bash-completion
          DESTINATION ${CMAKE_INSTALL_DATADIR}/bash-completion/completions RENAME tarnlift)
  install(FILES ${TARNLIFT_PACKAGING_DIR}/copyright ${gen}/changelog.Debian.gz DESTINATION ${doc})
  install(FILES ${PROJECT_SOURCE_DIR}/README.md DESTINATION ${doc})
  file(GLOB doc_pages ${PROJECT_SOURCE_DIR}/docs/*.md)
  install(FILES ${doc_pages} DESTINATION ${doc})
  install(FILES ${TARNLIFT_PACKAGING_DIR}/tarnlift.conf DESTINATION ${doc}/examples)
  # The units are shipped, not enabled: a server on a segment is a decision.
  install(FILES ${TARNLIFT_PACKAGING_DIR}/tarnlift.service ${TARNLIFT_PACKAGING_DIR}/tarnlift@.service
          DESTINATION lib/systemd/system)
endif()

include(CPack)
