# `zentra`, beside `kestro`, takes three packages: the headers of CLI11 and nlohmann-json, and the
# shared library of fmt (as headers alone it would be compiled anew with each file). Neither `kestro`
# nor the library needs any. The target `companions` has what `zentra` is made with.

find_package(CLI11 QUIET)
find_package(nlohmann_json QUIET)
find_package(fmt QUIET)
if(CLI11_FOUND AND nlohmann_json_FOUND AND fmt_FOUND)
  set(companions_found ON)
else()
  set(companions_found OFF)
endif()
option(KESTRO_COMPANIONS "Build zentra (needs CLI11, nlohmann-json and fmt)" ${companions_found})

if(KESTRO_COMPANIONS)
  find_package(CLI11 REQUIRED)
  find_package(nlohmann_json REQUIRED)
  find_package(fmt REQUIRED)
  add_library(companions INTERFACE)
  target_link_libraries(
    companions INTERFACE CLI11::CLI11 nlohmann_json::nlohmann_json fmt::fmt)
endif()
