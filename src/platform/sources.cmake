# Platform layer. HTTP sessions and pinning keep their own list.
list(APPEND PALOMIR_SOURCES
)
include("${CMAKE_CURRENT_LIST_DIR}/http_sources.cmake" OPTIONAL)
