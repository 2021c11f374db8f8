# Data model: the backend's records, the shared date form, and the dynamic
# JSON values (which live with the API sources but are built from here).
list(APPEND PALOMIR_SOURCES
  ${CMAKE_CURRENT_LIST_DIR}/color.cpp
  ${CMAKE_CURRENT_LIST_DIR}/date.cpp
  ${CMAKE_CURRENT_LIST_DIR}/decode.cpp
  ${CMAKE_CURRENT_LIST_DIR}/encode.cpp
  ${CMAKE_CURRENT_LIST_DIR}/mime_types.cpp
  ${CMAKE_CURRENT_LIST_DIR}/reading.cpp
  ${CMAKE_CURRENT_LIST_DIR}/records.cpp
  ${CMAKE_CURRENT_LIST_DIR}/../api/any_codable.cpp
)
