#pragma once

#include <fstream>
#include <string>

#include <nlohmann/json.hpp>

namespace palomir::test {

// A JSON file of tests/model/data, parsed.
inline nlohmann::json dataJson(const std::string& name) {
    std::ifstream file(std::string(PALOMIR_MODEL_TEST_DATA) + "/" + name);
    return nlohmann::json::parse(file);
}

}  // namespace palomir::test
