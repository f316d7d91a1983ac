# What the tree links against. ARCHITECTURE.md says why each is there.

find_package(PkgConfig REQUIRED)
find_package(Threads REQUIRED)
find_package(Boost REQUIRED)
# Prefix and modules of pkg-config. What is installed asks for the same: packaging/development.cmake.
set(FERRO_MODULES
  "CURL libcurl"
  "KRB5 krb5 krb5-gssapi"
  "LDAP ldap lber"
  "SODIUM libsodium"
  "BSD libbsd"
  "SPDLOG spdlog"
  "RAPIDJSON RapidJSON")
foreach(row ${FERRO_MODULES})
  separate_arguments(modules UNIX_COMMAND "${row}")
  list(POP_FRONT modules prefix)
  pkg_check_modules(${prefix} REQUIRED IMPORTED_TARGET ${modules})
endforeach()
# Of the tool alone.
pkg_check_modules(SASL REQUIRED IMPORTED_TARGET libsasl2)
pkg_check_modules(CRYPTO REQUIRED libcrypto)
if(FERRO_TESTS)
  find_package(GTest REQUIRED)
  pkg_check_modules(OPENSSL REQUIRED IMPORTED_TARGET openssl)
elseif(FERRO_BENCH)
  pkg_check_modules(OPENSSL IMPORTED_TARGET openssl)
endif()
