# Every dependency comes from a Debian 12 package; scripts/setup.sh installs them.
find_package(PkgConfig REQUIRED)
find_package(Threads REQUIRED)
pkg_check_modules(ACE REQUIRED IMPORTED_TARGET ACE)
pkg_check_modules(YAJL REQUIRED IMPORTED_TARGET yajl)
pkg_check_modules(ZSTD REQUIRED IMPORTED_TARGET libzstd)
find_package(nlohmann_json 3 REQUIRED)
find_package(Boost 1.74 REQUIRED)
find_package(CURL REQUIRED)
find_package(pugixml REQUIRED)
find_package(SQLite3 REQUIRED)
find_package(GTest REQUIRED)

# cpp-httplib is used header-only, without TLS: our servers listen on loopback.
find_path(HTTPLIB_INCLUDE_DIR httplib.h REQUIRED)
add_library(httplib_header INTERFACE)
target_include_directories(httplib_header SYSTEM INTERFACE ${HTTPLIB_INCLUDE_DIR})
target_link_libraries(httplib_header INTERFACE Threads::Threads)
