# Platform layer. HTTP sessions and pinning keep their own list.
list(APPEND PALOMIR_SOURCES
  ${CMAKE_CURRENT_LIST_DIR}/crypto.cpp
  ${CMAKE_CURRENT_LIST_DIR}/environment.cpp
  ${CMAKE_CURRENT_LIST_DIR}/url.cpp
  ${CMAKE_CURRENT_LIST_DIR}/uuid.cpp
)
include("${CMAKE_CURRENT_LIST_DIR}/http_sources.cmake" OPTIONAL)
