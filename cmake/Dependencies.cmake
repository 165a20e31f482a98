# Every dependency comes from a Debian 12 package; scripts/setup.sh installs them.
find_package(PkgConfig REQUIRED)
find_package(Threads REQUIRED)
pkg_check_modules(ACE REQUIRED IMPORTED_TARGET ACE)
pkg_check_modules(YAJL REQUIRED IMPORTED_TARGET yajl)
pkg_check_modules(ZSTD REQUIRED IMPORTED_TARGET libzstd)
find_package(nlohmann_json 3 REQUIRED)
find_package(Boost 1.74 REQUIRED)
find_package(CURL REQUIRED)
find_package(OpenSSL REQUIRED)
find_package(pugixml REQUIRED)
# expat parses ExportItems answers as they arrive (pugixml only reads whole documents).
find_package(EXPAT REQUIRED)
find_package(SQLite3 REQUIRED)
find_package(GTest REQUIRED)

# cpp-httplib serves backupd and exo-sim on loopback. Debian ships it in split mode: the
# implementation lives in libcpp-httplib.so, built with TLS and compression support, so
# users take the package's compile definitions from pkg-config to match the library.
pkg_check_modules(CPP_HTTPLIB REQUIRED IMPORTED_TARGET cpp-httplib)
add_library(cpp_httplib INTERFACE)
target_link_libraries(cpp_httplib INTERFACE PkgConfig::CPP_HTTPLIB Threads::Threads)
