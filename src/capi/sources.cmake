list(APPEND PALOMIR_SOURCES
  ${CMAKE_CURRENT_LIST_DIR}/capi_values.cpp
  ${CMAKE_CURRENT_LIST_DIR}/capi_client.cpp
  ${CMAKE_CURRENT_LIST_DIR}/capi_records.cpp
)
