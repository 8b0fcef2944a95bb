# Flags that every target of this project is built with. Links as zol_flags.
add_library(zol_flags INTERFACE)
# On the command line too, or clang-tidy reads the sources in a standard of its own.
set(CMAKE_CXX_STANDARD 17)
set(CMAKE_CXX_STANDARD_REQUIRED ON)
set(CMAKE_CXX_EXTENSIONS OFF)

# Glibc on 32-bit ARM defaults to a 32-bit time_t and off_t; logs may pass 2 GiB on a stick and the
# product outlives 2038.
target_compile_definitions(zol_flags INTERFACE _FILE_OFFSET_BITS=64 _TIME_BITS=64 BOOST_BIND_GLOBAL_PLACEHOLDERS)

target_compile_options(zol_flags INTERFACE
    -Wall -Wextra         # the usual suspects
    -Wpedantic            # keeps us on standard C++17
    -Wshadow              # a shadowed member is a lost write
    -Wconversion          # the device is 32-bit: silent narrowing differs from the developer's machine
    -Wformat=2            # log formats are data in a root daemon
    -Wnon-virtual-dtor -Woverloaded-virtual)   # the runtime is built on inheritance
if(ZOL_WERROR)
    target_compile_options(zol_flags INTERFACE -Werror)
endif()

if(ZOL_SANITIZE)
    # Line numbers are all that a sanitizer's report shows.
    set(CMAKE_CXX_FLAGS_DEBUG "-g1 -O1")
    target_compile_options(zol_flags INTERFACE
        -fsanitize=${ZOL_SANITIZE} -fno-omit-frame-pointer -fno-sanitize-recover=undefined)
    target_link_options(zol_flags INTERFACE -fsanitize=${ZOL_SANITIZE})
    # The compiler warns that atomic_thread_fence is not modelled; Boost uses it, we do not.
    target_compile_options(zol_flags INTERFACE $<$<CXX_COMPILER_ID:GNU>:-Wno-tsan>)
endif()
if(ZOL_COVERAGE)
    target_compile_options(zol_flags INTERFACE --coverage -O0)
    target_link_options(zol_flags INTERFACE --coverage)
endif()
if(ZOL_HARDEN)
    target_compile_options(zol_flags INTERFACE -U_FORTIFY_SOURCE -D_FORTIFY_SOURCE=3 -fstack-protector-strong)
    target_link_options(zol_flags INTERFACE -Wl,-z,relro,-z,now -Wl,--as-needed)
endif()
set(CMAKE_POSITION_INDEPENDENT_CODE ON)

# Four presets build the same sources; ccache makes the second build of any of them cheap.
find_program(ZOL_CCACHE ccache)
if(ZOL_CCACHE AND NOT CMAKE_CXX_COMPILER_LAUNCHER)
    set(CMAKE_C_COMPILER_LAUNCHER ${ZOL_CCACHE})
    set(CMAKE_CXX_COMPILER_LAUNCHER ${ZOL_CCACHE})
endif()
