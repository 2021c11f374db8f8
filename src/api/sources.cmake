# Backend access.
list(APPEND PALOMIR_SOURCES
  ${CMAKE_CURRENT_LIST_DIR}/oauth.cpp
  ${CMAKE_CURRENT_LIST_DIR}/credentials.cpp
  ${CMAKE_CURRENT_LIST_DIR}/app_info.cpp
  ${CMAKE_CURRENT_LIST_DIR}/api_client.cpp
)
