# The Python package `zentra` (python/): its compiled module, linked to the shared library, for one
# copy of the library must serve all of a process. `layout/` has no such state and is part of it.

option(KESTRO_PYTHON "Build the Python package zentra (needs pybind11 and NumPy)" OFF)
if(NOT KESTRO_PYTHON)
  return()
endif()
if(NOT KESTRO_SHARED)
  message(FATAL_ERROR "KESTRO_PYTHON needs KESTRO_SHARED: the package links the shared library")
endif()

# The system's, for which its packages of modules are; another one may come first in the path.
if(NOT DEFINED Python_EXECUTABLE AND EXISTS /usr/bin/python3)
  set(Python_EXECUTABLE /usr/bin/python3)
endif()
find_package(Python REQUIRED COMPONENTS Interpreter Development.Module)
set(PYBIND11_FINDPYTHON ON)
find_package(pybind11 REQUIRED)

file(GLOB python_module_sources CONFIGURE_DEPENDS python/src/_zentra/*.cpp)
floor_objects(objects _shared layout)
pybind11_add_module(python_module MODULE NO_EXTRAS ${python_module_sources} ${objects})
find_headers(python_module layout)
target_link_libraries(python_module PRIVATE isam_shared build_flags)

# A package that can be imported from the build folder: links to the sources, and the module.
set(python_package ${PROJECT_BINARY_DIR}/python/zentra)
file(MAKE_DIRECTORY ${python_package})
file(GLOB python_files CONFIGURE_DEPENDS RELATIVE ${PROJECT_SOURCE_DIR}/python/src/zentra
     python/src/zentra/*.py python/src/zentra/*/*.py python/src/zentra/*.pyi
     python/src/zentra/py.typed)
file(MAKE_DIRECTORY ${python_package}/fleet)
foreach(name IN LISTS python_files)
  file(CREATE_LINK ${PROJECT_SOURCE_DIR}/python/src/zentra/${name} ${python_package}/${name} SYMBOLIC)
endforeach()
set_target_properties(
  python_module PROPERTIES OUTPUT_NAME _zentra LIBRARY_OUTPUT_DIRECTORY ${python_package})

# Where Debian's Python looks, also for packages of a prefix of one's own.
set(python_folder lib/python3/dist-packages/zentra)
install(TARGETS python_module LIBRARY DESTINATION ${python_folder} COMPONENT python)
foreach(name IN LISTS python_files)
  get_filename_component(folder ${name} DIRECTORY)
  install(FILES python/src/zentra/${name} DESTINATION ${python_folder}/${folder} COMPONENT python)
endforeach()
install(FILES man/zentra-fleet.1 DESTINATION ${CMAKE_INSTALL_MANDIR}/man1 COMPONENT python)

if(NOT BUILD_TESTING)
  return()
endif()

# An application in C that runs Python, and both use the library.
find_package(Python REQUIRED COMPONENTS Development.Embed)
add_executable(together python/tests/together.c)
set_target_properties(together PROPERTIES ENABLE_EXPORTS ON)
target_link_libraries(together PRIVATE isam_shared Python::Python)
# And one that works beside processes of Python.
add_executable(beside python/tests/beside.c)
target_link_libraries(beside PRIVATE isam_shared)

add_test(NAME python.Package COMMAND Python::Interpreter -m pytest -q -p no:cacheprovider
                                     ${PROJECT_SOURCE_DIR}/python/tests)
set(python_environment PYTHONPATH=${PROJECT_BINARY_DIR}/python PYTHONDONTWRITEBYTECODE=1
                       TOGETHER=$<TARGET_FILE:together> BESIDE=$<TARGET_FILE:beside>)
if(TARGET zentra)
  list(APPEND python_environment ZENTRA=$<TARGET_FILE:zentra>)
endif()
if(KESTRO_SANITIZE)
  # What the interpreter never frees is no fault of the package. The programs that the tests start
  # have the runtime already.
  list(APPEND python_environment "LD_PRELOAD=${sanitizer_preload}" ASAN_OPTIONS=detect_leaks=0)
endif()
set_tests_properties(python.Package PROPERTIES TIMEOUT 300 ENVIRONMENT "${python_environment}")
