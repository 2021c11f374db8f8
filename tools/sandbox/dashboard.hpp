#pragma once

// The dashboard's files, compiled in: dashboard_files.cpp is generated from
// tools/sandbox/dashboard/ by embed_dashboard.cmake.

#include <cstddef>
#include <string_view>

namespace palomir::sandbox {

struct DashboardFile {
    std::string_view name;
    std::string_view contentType;
    std::string_view content;
};

extern const DashboardFile kDashboardFiles[];
extern const std::size_t kDashboardFileCount;

}  // namespace palomir::sandbox
