# Fuzz target of the binding file loader and the replay of its corpus.
add_executable(fuzz_loader_replay
  ${CMAKE_CURRENT_LIST_DIR}/fuzz_loader.cpp
  ${CMAKE_CURRENT_LIST_DIR}/loader_replay_main.cpp)
target_link_libraries(fuzz_loader_replay PRIVATE dhcpsnoop dhcpsnoop_sim)
# The files are named one by one: directory listings fail for 32-bit guests
# under qemu on some host file systems.
file(GLOB _loader_corpus CONFIGURE_DEPENDS ${CMAKE_CURRENT_LIST_DIR}/corpus/loader/*)
list(SORT _loader_corpus)
add_test(NAME fuzz_loader_corpus COMMAND fuzz_loader_replay ${_loader_corpus})
set_tests_properties(fuzz_loader_corpus PROPERTIES LABELS fuzz)

if(DHCPSNOOP_FUZZ AND CMAKE_CXX_COMPILER_ID MATCHES "Clang")
  add_executable(fuzz_loader ${CMAKE_CURRENT_LIST_DIR}/fuzz_loader.cpp)
  target_compile_options(fuzz_loader PRIVATE -fsanitize=fuzzer,address,undefined)
  target_link_options(fuzz_loader PRIVATE -fsanitize=fuzzer,address,undefined)
  target_link_libraries(fuzz_loader PRIVATE dhcpsnoop_fuzzmodule dhcpsnoop_sim)
endif()
