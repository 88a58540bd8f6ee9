# The Debian packages that `cpack` makes: the program, the shared library, what building against the
# library takes, and the Python package.

# The static library of a build with KESTRO_LTO serves the same compiler only: no packages of it.
if(NOT KESTRO_SHARED OR KESTRO_LTO)
  return()
endif()

set(CPACK_GENERATOR DEB)
set(CPACK_PACKAGE_NAME kestro)
set(CPACK_PACKAGE_VENDOR "The Kestro developers")
set(CPACK_PACKAGE_CONTACT "The Kestro developers <kestro@example.org>")
set(CPACK_PACKAGE_DESCRIPTION_SUMMARY "")  # each package has its own below
set(CPACK_STRIP_FILES ON)
set(CPACK_VERBATIM_VARIABLES ON)

set(CPACK_COMPONENTS_ALL kestro runtime development)
if(KESTRO_PYTHON)
  list(APPEND CPACK_COMPONENTS_ALL python)
endif()
set(CPACK_DEB_COMPONENT_INSTALL ON)
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_CONTROL_STRICT_PERMISSION ON)
set(CPACK_PRE_BUILD_SCRIPTS ${PROJECT_SOURCE_DIR}/cmake/package_contents.cmake)

# What the binaries need of the system is found out, where that is possible.
find_program(shlibdeps_program dpkg-shlibdeps)
mark_as_advanced(shlibdeps_program)
if(shlibdeps_program)
  set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)
else()
  set(CPACK_DEBIAN_KESTRO_PACKAGE_DEPENDS "libc6, libgcc-s1, libstdc++6")
  set(CPACK_DEBIAN_RUNTIME_PACKAGE_DEPENDS "libc6, libgcc-s1, libstdc++6")
endif()

set(runtime_package libisam${PROJECT_VERSION_MAJOR})

set(CPACK_DEBIAN_KESTRO_PACKAGE_NAME kestro)
set(CPACK_DEBIAN_KESTRO_PACKAGE_SECTION admin)
set(CPACK_DEBIAN_KESTRO_DESCRIPTION
    "${PROJECT_DESCRIPTION}
kestro checks pairs of data and index files, tells what is damaged and, if
the operator agrees, rebuilds it from the records. isrecover applies a
transaction log to pairs restored from a copy.")

set(CPACK_DEBIAN_RUNTIME_PACKAGE_NAME ${runtime_package})
set(CPACK_DEBIAN_RUNTIME_PACKAGE_SECTION libs)
# Who links to the library depends on the version that has all that he uses; and the loader's cache
# learns of it by a trigger. The names are those that the library shows.
set(control ${PROJECT_BINARY_DIR}/generated/control)
set(soname libisam.so.${PROJECT_VERSION_MAJOR})
file(STRINGS ${PROJECT_SOURCE_DIR}/cmake/isam.map names REGEX "^    [a-z0-9]+;")
list(TRANSFORM names REPLACE "^    ([a-z0-9]+);$" " \\1@Base ${PROJECT_VERSION}")
list(SORT names)
string(REPLACE ";" "\n" names "${names}")
file(WRITE ${control}/symbols "${soname} ${runtime_package} #MINVER#\n${names}\n")
file(WRITE ${control}/shlibs
     "libisam ${PROJECT_VERSION_MAJOR} ${runtime_package} (>= ${PROJECT_VERSION})\n")
file(WRITE ${control}/triggers "activate-noawait ldconfig\n")
set(CPACK_DEBIAN_RUNTIME_PACKAGE_CONTROL_EXTRA ${control}/symbols ${control}/shlibs
                                               ${control}/triggers)
set(CPACK_DEBIAN_RUNTIME_DESCRIPTION
    "Library of Zentra indexed files
The shared library that programs using Zentra indexed files run with.")

set(CPACK_DEBIAN_DEVELOPMENT_PACKAGE_NAME libisam-dev)
set(CPACK_DEBIAN_DEVELOPMENT_PACKAGE_SECTION libdevel)
set(CPACK_DEBIAN_DEVELOPMENT_PACKAGE_DEPENDS "${runtime_package} (= ${PROJECT_VERSION})")
set(CPACK_DEBIAN_DEVELOPMENT_PACKAGE_SUGGESTS kestro)
set(CPACK_DEBIAN_DEVELOPMENT_DESCRIPTION
    "Library of Zentra indexed files, development files
Headers for C and C++, the static library, files for pkg-config and CMake,
manual and examples.")

if(KESTRO_PYTHON)
  # The compiled module serves one version of Python, and the library of this build.
  math(EXPR next_minor "${Python_VERSION_MINOR} + 1")
  set(CPACK_DEBIAN_PYTHON_PACKAGE_NAME python3-zentra)
  set(CPACK_DEBIAN_PYTHON_PACKAGE_SECTION python)
  set(CPACK_DEBIAN_PYTHON_PACKAGE_DEPENDS
      "python3 (>= 3.${Python_VERSION_MINOR}), python3 (<< 3.${next_minor}), python3-numpy, ${runtime_package} (>= ${PROJECT_VERSION})")
  # The workers of a cluster run zentra, which is in the package of the programs.
  set(CPACK_DEBIAN_PYTHON_PACKAGE_RECOMMENDS
      "python3-pandas, python3-dask, python3-distributed, python3-matplotlib, kestro")
  set(CPACK_DEBIAN_PYTHON_DESCRIPTION
      "Zentra indexed files in Python
Records by keys with locks and transactions; whole pairs as NumPy arrays and
as dataframes of pandas or Dask; many pairs checked by a cluster of Dask.")
  set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS_PRIVATE_DIRS ${PROJECT_BINARY_DIR})
endif()

include(CPack)
