# Every library that the daemon and the tools stand on, each as one imported target. libnats and d3
# are the tools' alone.
find_package(Threads REQUIRED)
find_package(OpenSSL REQUIRED)
find_package(CURL REQUIRED)
find_package(LibLZMA REQUIRED)
find_package(Protobuf REQUIRED)
find_package(Poco REQUIRED COMPONENTS Foundation Util Crypto Net NetSSL)

find_package(PkgConfig REQUIRED)
pkg_check_modules(AUDIT REQUIRED IMPORTED_TARGET audit)
pkg_check_modules(AUPARSE REQUIRED IMPORTED_TARGET auparse)
pkg_check_modules(MAGIC REQUIRED IMPORTED_TARGET libmagic)
pkg_check_modules(SQLITE REQUIRED IMPORTED_TARGET sqlite3)
pkg_check_modules(PROXY REQUIRED IMPORTED_TARGET libproxy-1.0)
pkg_check_modules(NATS REQUIRED IMPORTED_TARGET libnats)

find_path(RAPIDJSON_INCLUDE_DIR rapidjson/document.h REQUIRED)
find_file(D3_SCRIPT d3.min.js PATHS /usr/share/javascript/d3 NO_DEFAULT_PATH REQUIRED)

if(OSTREL_TESTS)
  find_package(GTest REQUIRED)
endif()
if(OSTREL_BENCH)
  find_package(benchmark REQUIRED)
endif()
