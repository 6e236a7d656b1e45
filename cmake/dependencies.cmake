# System libraries, installed by scripts/bootstrap through apt.
find_package(Threads REQUIRED)
find_package(OpenSSL REQUIRED)
find_package(PkgConfig REQUIRED)
pkg_check_modules(SODIUM REQUIRED IMPORTED_TARGET libsodium)

# msgpack-cxx is header-only; we use it without Boost.
find_path(MSGPACK_CXX_INCLUDE_DIR msgpack.hpp REQUIRED)
add_library(qv_msgpack INTERFACE)
target_include_directories(qv_msgpack SYSTEM INTERFACE ${MSGPACK_CXX_INCLUDE_DIR})
target_compile_definitions(qv_msgpack INTERFACE MSGPACK_NO_BOOST MSGPACK_DEFAULT_API_VERSION=3)

# Warnings for our own targets.
add_library(qv_warnings INTERFACE)
target_compile_options(qv_warnings INTERFACE -Wall -Wextra -Wno-unused-parameter)

# libmosquitto: the MQTT 5 transport of the bus.
pkg_check_modules(MOSQUITTO REQUIRED IMPORTED_TARGET libmosquitto)
