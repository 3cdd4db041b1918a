# Fuzz target of the live platform's switching core and the replay of its
# corpus. The live platform's library is made by tools/ (after this
# directory): set up once the whole tree is read.
set_property(GLOBAL PROPERTY DHCPSNOOP_FUZZ_LIVE_DIR ${CMAKE_CURRENT_LIST_DIR})

function(dhcpsnoop_fuzz_live)
  get_property(dir GLOBAL PROPERTY DHCPSNOOP_FUZZ_LIVE_DIR)
  if(NOT TARGET dhcpsnoop_linux)
    return()
  endif()
  if(DHCPSNOOP_TESTS)
    add_executable(fuzz_live_replay ${dir}/fuzz_live.cpp ${dir}/replay_main.cpp)
    target_link_libraries(fuzz_live_replay PRIVATE dhcpsnoop_linux)
    # Beside the other targets of this directory (the test command looks there).
    set_target_properties(fuzz_live_replay PROPERTIES RUNTIME_OUTPUT_DIRECTORY ${CMAKE_BINARY_DIR}/fuzz)
    # The files are named one by one: directory listings fail for 32-bit
    # guests under qemu on some host file systems.
    file(GLOB corpus CONFIGURE_DEPENDS ${dir}/corpus/live/*)
    list(SORT corpus)
    add_test(NAME fuzz_live_corpus COMMAND fuzz_live_replay ${corpus})
    set_tests_properties(fuzz_live_corpus PROPERTIES LABELS fuzz)

    # Writes the seed corpus (run by hand) with the tests' frame builder.
    add_executable(fuzz_gen_live_corpus ${dir}/gen_live_corpus.cpp ${PROJECT_SOURCE_DIR}/tests/support/frame_builder.cpp)
    target_include_directories(fuzz_gen_live_corpus PRIVATE ${PROJECT_SOURCE_DIR} ${PROJECT_SOURCE_DIR}/tests)
    set_target_properties(fuzz_gen_live_corpus PROPERTIES RUNTIME_OUTPUT_DIRECTORY ${CMAKE_BINARY_DIR}/fuzz)
  endif()
  if(DHCPSNOOP_FUZZ AND CMAKE_CXX_COMPILER_ID MATCHES "Clang")
    # The live platform and the shared platform helpers are compiled into the
    # target with the fuzzer's instrumentation, so that their coverage guides it.
    set(srcs)
    foreach(lib dhcpsnoop_linux dhcpsnoop_platform_common)
      get_target_property(s ${lib} SOURCES)
      get_target_property(d ${lib} SOURCE_DIR)
      foreach(f ${s})
        list(APPEND srcs ${d}/${f})
      endforeach()
    endforeach()
    set(flags -fsanitize=fuzzer,address,undefined -fno-sanitize-recover=all -fno-omit-frame-pointer)
    add_executable(fuzz_live ${dir}/fuzz_live.cpp ${srcs})
    set_target_properties(fuzz_live PROPERTIES RUNTIME_OUTPUT_DIRECTORY ${CMAKE_BINARY_DIR}/fuzz)
    target_compile_options(fuzz_live PRIVATE ${flags})
    target_link_options(fuzz_live PRIVATE ${flags})
    find_package(Threads REQUIRED)
    target_link_libraries(fuzz_live PRIVATE dhcpsnoop dhcpsnoop_config dhcpsnoop_dropreason Threads::Threads)
    # The bridge data plane's sources come with its definition and libraries.
    get_target_property(defs dhcpsnoop_linux INTERFACE_COMPILE_DEFINITIONS)
    if(defs)
      target_compile_definitions(fuzz_live PRIVATE ${defs})
    endif()
    if(TARGET PkgConfig::DHCPSNOOP_NFT AND TARGET PkgConfig::DHCPSNOOP_MNL)
      target_link_libraries(fuzz_live PRIVATE PkgConfig::DHCPSNOOP_NFT PkgConfig::DHCPSNOOP_MNL)
    endif()
  endif()
endfunction()
cmake_language(DEFER DIRECTORY ${PROJECT_SOURCE_DIR} CALL dhcpsnoop_fuzz_live)
