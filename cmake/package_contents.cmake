# What a Debian package needs beside what is installed. cpack runs this on the folder of each
# package: copyright, the changelog in Debian's form, and manual pages compressed.

string(TIMESTAMP isam_date "%a, %d %b %Y %H:%M:%S +0000" UTC)
set(changelog
    "kestro (${CPACK_PACKAGE_VERSION}) unstable; urgency=medium

  * What changed is told in CHANGELOG.md of the sources.

 -- ${CPACK_PACKAGE_CONTACT}  ${isam_date}
")
set(copyright
    "Format: https://www.debian.org/doc/packaging-manuals/copyright-format/1.0/

Files: *
Copyright: 2026 ${CPACK_PACKAGE_VENDOR}
License: all-rights-reserved
 All rights reserved.
")

file(GLOB folders LIST_DIRECTORIES ON ${CPACK_TEMPORARY_DIRECTORY}/*)
foreach(folder IN LISTS folders)
  get_filename_component(component ${folder} NAME)
  string(TOUPPER ${component} component)
  set(package "${CPACK_DEBIAN_${component}_PACKAGE_NAME}")
  if(package STREQUAL "" OR NOT IS_DIRECTORY ${folder}/usr)
    continue()
  endif()
  set(documents ${folder}/usr/share/doc/${package})
  file(WRITE ${documents}/copyright "${copyright}")
  file(WRITE ${documents}/changelog "${changelog}")
  file(GLOB pages ${folder}/usr/share/man/man*/*.[1-9])
  execute_process(COMMAND gzip -9nf ${documents}/changelog ${pages} COMMAND_ERROR_IS_FATAL ANY)
endforeach()
