# Platform layer. HTTP sessions and pinning keep their own list.
list(APPEND PALOMIR_SOURCES
  ${CMAKE_CURRENT_LIST_DIR}/bundle.cpp
  ${CMAKE_CURRENT_LIST_DIR}/crypto.cpp
  ${CMAKE_CURRENT_LIST_DIR}/dispatch.cpp
  ${CMAKE_CURRENT_LIST_DIR}/environment.cpp
  ${CMAKE_CURRENT_LIST_DIR}/notification_center.cpp
  ${CMAKE_CURRENT_LIST_DIR}/url.cpp
  ${CMAKE_CURRENT_LIST_DIR}/uuid.cpp
)
include("${CMAKE_CURRENT_LIST_DIR}/http_sources.cmake" OPTIONAL)
