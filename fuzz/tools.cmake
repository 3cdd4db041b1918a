# Fuzz targets of the daemon's inputs: the configuration file (fuzz_config)
# and the control protocol (fuzz_control). Their libraries are defined after
# this directory (tools/), so the targets are made once the whole tree is
# read. Each corpus is replayed as a CTest in every build; the libFuzzer
# binaries need clang and -DDHCPSNOOP_FUZZ=ON.
set_property(GLOBAL PROPERTY DHCPSNOOP_FUZZ_TOOLS_DIR ${CMAKE_CURRENT_LIST_DIR})

function(dhcpsnoop_fuzz_tools)
  get_property(dir GLOBAL PROPERTY DHCPSNOOP_FUZZ_TOOLS_DIR)
  set(src ${PROJECT_SOURCE_DIR})
  if(NOT TARGET dhcpsnoop_config OR NOT TARGET dhcpsnoop_control)
    message(STATUS "configuration or control library missing: no fuzz_config, fuzz_control")
    return()
  endif()
  if(DHCPSNOOP_TESTS)
    add_executable(fuzz_config_replay ${dir}/fuzz_config.cpp ${dir}/replay_main.cpp)
    target_link_libraries(fuzz_config_replay PRIVATE dhcpsnoop_config)
    add_executable(fuzz_control_replay ${dir}/fuzz_control.cpp ${dir}/replay_main.cpp)
    target_link_libraries(fuzz_control_replay PRIVATE dhcpsnoop_control)
    foreach(t config control)
      # The files are named one by one (directory listings fail for 32-bit
      # guests under qemu on some host file systems).
      file(GLOB corpus CONFIGURE_DEPENDS ${dir}/corpus/${t}/*)
      list(SORT corpus)
      add_test(NAME fuzz_${t}_corpus COMMAND fuzz_${t}_replay ${corpus})
      set_tests_properties(fuzz_${t}_corpus PROPERTIES LABELS fuzz)
    endforeach()
  endif()
  if(DHCPSNOOP_FUZZ AND CMAKE_CXX_COMPILER_ID MATCHES "Clang")
    # The libraries' sources are compiled into the targets with the fuzzer's
    # instrumentation, so that their coverage guides it.
    set(flags -fsanitize=fuzzer,address,undefined -fno-sanitize-recover=all -fno-omit-frame-pointer)
    add_executable(fuzz_config ${dir}/fuzz_config.cpp ${src}/tools/common/switch_config.cpp)
    target_include_directories(fuzz_config SYSTEM PRIVATE ${DHCPSNOOP_TOMLPP_INCLUDE})
    add_executable(fuzz_control ${dir}/fuzz_control.cpp ${src}/tools/daemon/command.cpp
      ${src}/tools/daemon/control.cpp ${src}/tools/daemon/stop.cpp ${src}/tools/daemon/metrics.cpp
      ${src}/tools/daemon/monitor.cpp
      ${src}/tools/common/json_text.cpp)
    find_package(Threads REQUIRED)
    target_link_libraries(fuzz_control PRIVATE Threads::Threads)
    foreach(t fuzz_config fuzz_control)
      # Beside the other fuzz targets, where the test command looks.
      set_target_properties(${t} PROPERTIES RUNTIME_OUTPUT_DIRECTORY ${CMAKE_BINARY_DIR}/fuzz)
      target_include_directories(${t} PRIVATE ${src})
      target_compile_options(${t} PRIVATE ${flags})
      target_link_options(${t} PRIVATE ${flags})
    endforeach()
  endif()
endfunction()
cmake_language(DEFER DIRECTORY ${PROJECT_SOURCE_DIR} CALL dhcpsnoop_fuzz_tools)
