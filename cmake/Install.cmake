# The shared library, and what `cmake --install` puts where, in components:
#   kestro       the programs, their man pages and that of their settings files
#   runtime      the shared library
#   development  what building against the library takes
#   python       the Python package (cmake/Python.cmake)

set(cmake_package_folder ${CMAKE_INSTALL_LIBDIR}/cmake/Isam)
set(example_folder ${CMAKE_INSTALL_DATAROOTDIR}/doc/libisam-dev/examples)

if(KESTRO_SHARED)
  set(symbol_map ${PROJECT_SOURCE_DIR}/cmake/isam.map)
  floor_objects(objects _shared ${library_floors})
  add_library(isam_shared SHARED ${objects})
  target_include_directories(isam_shared PUBLIC $<BUILD_INTERFACE:${PROJECT_SOURCE_DIR}/include>)
  target_link_libraries(isam_shared PRIVATE $<BUILD_INTERFACE:project_internal>)
  target_compile_features(isam_shared INTERFACE $<BUILD_INTERFACE:cxx_std_20>)
  target_link_options(isam_shared PRIVATE -Wl,--version-script=${symbol_map} -Wl,-z,defs)
  set_target_properties(
    isam_shared PROPERTIES OUTPUT_NAME isam EXPORT_NAME isam LINK_DEPENDS ${symbol_map}
                           VERSION ${PROJECT_VERSION} SOVERSION ${PROJECT_VERSION_MAJOR})
  install(
    TARGETS isam_shared EXPORT IsamTargets
    LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR}
            COMPONENT runtime
            NAMELINK_COMPONENT development
    INCLUDES DESTINATION ${CMAKE_INSTALL_INCLUDEDIR})
endif()

set(programs kestro kestroenv isrecover)
if(KESTRO_COMPANIONS)
  list(APPEND programs zentra)
endif()
install(TARGETS ${programs}
        RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR} COMPONENT kestro)

# What shells complete, made by the program from its own table, where Debian's shells look for it.
if(KESTRO_COMPANIONS AND NOT CMAKE_CROSSCOMPILING)
  set(completion_names bash-completion/completions/zentra zsh/vendor-completions/_zentra
                       fish/vendor_completions.d/zentra.fish)
  set(completion_files "")
  set(shells bash zsh fish)
  foreach(shell name IN ZIP_LISTS shells completion_names)
    set(file ${PROJECT_BINARY_DIR}/generated/completion/${name})
    get_filename_component(folder ${file} DIRECTORY)
    file(MAKE_DIRECTORY ${folder})
    add_custom_command(OUTPUT ${file} COMMAND zentra completion ${shell} > ${file} DEPENDS zentra
                       VERBATIM)
    list(APPEND completion_files ${file})
  endforeach()
  add_custom_target(completions ALL DEPENDS ${completion_files})
  install(DIRECTORY ${PROJECT_BINARY_DIR}/generated/completion/
          DESTINATION ${CMAKE_INSTALL_DATAROOTDIR} COMPONENT kestro)
endif()

set_target_properties(isam PROPERTIES EXPORT_NAME isam_static)
install(
  TARGETS isam EXPORT IsamTargets
  ARCHIVE DESTINATION ${CMAKE_INSTALL_LIBDIR} COMPONENT development
  INCLUDES DESTINATION ${CMAKE_INSTALL_INCLUDEDIR})
# Stripping leaves archives alone, but what a package installs should not name folders of the build.
set(strip_archive
    "execute_process(COMMAND \"${CMAKE_STRIP}\" --strip-debug
     \"\$ENV{DESTDIR}\${CMAKE_INSTALL_PREFIX}/${CMAKE_INSTALL_LIBDIR}/$<TARGET_FILE_NAME:isam>\"
     COMMAND_ERROR_IS_FATAL ANY)")
install(CODE "if(CMAKE_INSTALL_DO_STRIP)\n${strip_archive}\nendif()" COMPONENT development)
install(FILES include/isam.h include/isam.hpp DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}
        COMPONENT development)
install(DIRECTORY include/isam DESTINATION ${CMAKE_INSTALL_INCLUDEDIR} COMPONENT development
        FILES_MATCHING PATTERN "*.hpp")
install(FILES examples/accounts.c examples/customers.c examples/customers.cpp
        DESTINATION ${example_folder} COMPONENT development)

# find_package(Isam) gives Isam::isam, the shared library, and Isam::isam_static.
include(CMakePackageConfigHelpers)
install(EXPORT IsamTargets NAMESPACE Isam:: DESTINATION ${cmake_package_folder}
        COMPONENT development)
configure_package_config_file(
  cmake/IsamConfig.cmake.in ${PROJECT_BINARY_DIR}/generated/IsamConfig.cmake
  INSTALL_DESTINATION ${cmake_package_folder} NO_SET_AND_CHECK_MACRO)
write_basic_package_version_file(
  ${PROJECT_BINARY_DIR}/generated/IsamConfigVersion.cmake COMPATIBILITY SameMajorVersion)
install(FILES ${PROJECT_BINARY_DIR}/generated/IsamConfig.cmake
              ${PROJECT_BINARY_DIR}/generated/IsamConfigVersion.cmake
        DESTINATION ${cmake_package_folder} COMPONENT development)

# The pkg-config file tells its folders relative to its own, so that the tree may be moved.
file(RELATIVE_PATH pc_to_prefix /${CMAKE_INSTALL_LIBDIR}/pkgconfig /)
string(REGEX REPLACE "/$" "" pc_to_prefix "${pc_to_prefix}")
configure_file(cmake/isam.pc.in generated/isam.pc @ONLY)
install(FILES ${PROJECT_BINARY_DIR}/generated/isam.pc
        DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig COMPONENT development)

# Section 3 is about the library, the others about the programs and what they read.
foreach(section 1 3 5 7 8)
  file(GLOB pages CONFIGURE_DEPENDS man/*.${section})
  list(FILTER pages EXCLUDE REGEX "/zentra-fleet\\.1$")  # cmake/Python.cmake
  if(NOT KESTRO_COMPANIONS)
    list(FILTER pages EXCLUDE REGEX
         "/zentra((-[a-z]+)?\\.1|-(keys|raw)\\.5|-(crash|data)\\.7)$")
  endif()
  if(pages)
    set(component kestro)
    if(section EQUAL 3)
      set(component development)
    endif()
    install(FILES ${pages} DESTINATION ${CMAKE_INSTALL_MANDIR}/man${section}
            COMPONENT ${component})
  endif()
endforeach()
