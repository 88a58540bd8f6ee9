# Folders as floors: each is an object library that finds its own headers, those of the floors it
# uses and those that these use, and no others. An include of anything else does not compile.

# find_headers(TARGET FOLDER...): TARGET finds the headers of these folders under their full names.
# It is given, for each, the way to a folder that holds nothing but a link to that one.
function(find_headers target)
  foreach(folder IN LISTS ARGN)
    string(REPLACE "/" "_" name ${folder})
    set(view ${PROJECT_BINARY_DIR}/floors/${name})
    get_filename_component(parent ${view}/${folder} DIRECTORY)
    file(MAKE_DIRECTORY ${parent})
    file(CREATE_LINK ${PROJECT_SOURCE_DIR}/${folder} ${view}/${folder} SYMBOLIC)
    target_include_directories(${target} PUBLIC ${view})
  endforeach()
endfunction()

# add_floor(FOLDER FLOOR...): the folder's sources but main.cpp, with the floors that they use. Adds
# the object library `floor_` and the folder's name, and one of position-independent code for the
# shared library, where there is one.
function(add_floor folder)
  string(REPLACE "/" "_" name floor_${folder})
  file(GLOB sources CONFIGURE_DEPENDS ${folder}/*.cpp)
  list(FILTER sources EXCLUDE REGEX "/main\\.cpp$")
  set(kinds "")
  if(KESTRO_SHARED)
    set(kinds _shared)
  endif()
  foreach(kind IN ITEMS "" ${kinds})
    add_library(${name}${kind} OBJECT ${sources})
    find_headers(${name}${kind} ${folder})
    target_include_directories(
      ${name}${kind} PRIVATE ${PROJECT_SOURCE_DIR}/include ${PROJECT_BINARY_DIR}/generated)
    target_link_libraries(${name}${kind} PRIVATE build_flags)
    foreach(floor IN LISTS ARGN)
      string(REPLACE "/" "_" used floor_${floor})
      target_include_directories(
        ${name}${kind} PUBLIC $<TARGET_PROPERTY:${used},INTERFACE_INCLUDE_DIRECTORIES>)
    endforeach()
  endforeach()
  if(KESTRO_SHARED)
    # Only those of the library are built.
    set_target_properties(
      ${name}_shared PROPERTIES POSITION_INDEPENDENT_CODE ON EXCLUDE_FROM_ALL ON)
  endif()
endfunction()

# floor_objects(RESULT KIND FOLDER...): what the floors are compiled to; KIND is "" or "_shared".
function(floor_objects result kind)
  set(objects "")
  foreach(folder IN LISTS ARGN)
    string(REPLACE "/" "_" name floor_${folder})
    list(APPEND objects $<TARGET_OBJECTS:${name}${kind}>)
  endforeach()
  set(${result} ${objects} PARENT_SCOPE)
endfunction()
