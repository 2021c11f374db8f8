# HTTP sessions over libcurl and certificate pinning over OpenSSL.
list(APPEND PALOMIR_SOURCES
  ${CMAKE_CURRENT_LIST_DIR}/http_session.cpp
  ${CMAKE_CURRENT_LIST_DIR}/pinning.cpp
)
