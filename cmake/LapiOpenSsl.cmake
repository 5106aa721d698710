# The host stand-in of the TLS and certificate libraries (platform/host/
# ssl_host.cpp) loads OpenSSL with dlopen when TLS is first used: an idle
# server then maps neither libcrypto nor libssl. It is compiled against
# OpenSSL's headers and told the full paths of the libraries this build
# found (a cross build unpacks them off every default library path); it is
# not linked against them, so a call that does not go through its table of
# pointers fails to link.
#
#   find_package(OpenSSL 3 ...)
#   lapi_openssl_on_demand(TARGET)
function(lapi_openssl_on_demand target)
  get_filename_component(crypto "${OPENSSL_CRYPTO_LIBRARY}" REALPATH)
  get_filename_component(ssl "${OPENSSL_SSL_LIBRARY}" REALPATH)
  get_target_property(type ${target} TYPE)
  if(type STREQUAL "INTERFACE_LIBRARY")
    message(FATAL_ERROR "lapi_openssl_on_demand: ${target} compiles nothing")
  endif()
  target_include_directories(${target} PRIVATE ${OPENSSL_INCLUDE_DIR})
  target_compile_definitions(${target} PRIVATE
    LAPI_OPENSSL_CRYPTO_PATH="${crypto}" LAPI_OPENSSL_SSL_PATH="${ssl}")
  target_link_libraries(${target} PRIVATE ${CMAKE_DL_LIBS})
endfunction()
