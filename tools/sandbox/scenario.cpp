#include <fstream>
#include <sstream>

#include "palomir/model.hpp"
#include "sandbox.hpp"

namespace palomir::sandbox {

namespace {

std::string joinPath(const std::string& prefix, const std::string& keyPath) {
    if (keyPath.empty()) return prefix;
    if (keyPath.front() == '[') return prefix + keyPath;
    return prefix + "." + keyPath;
}

std::string describe(const std::string& prefix, const DecodingError& error) {
    return joinPath(prefix, error.keyPath) + ": " + error.reason;
}

Result<std::vector<nlohmann::json>, std::string> serviceList(const nlohmann::json& document, const char* key) {
    std::vector<nlohmann::json> list;
    auto found = document.find(key);
    if (found == document.end() || found->is_null()) return Ok{std::move(list)};
    if (!found->is_array()) return Err{std::string(key) + ": expected an array"};
    for (std::size_t i = 0; i < found->size(); ++i) {
        const auto& element = (*found)[i];
        auto decoded = decode<Service>(element);
        if (decoded.hasError())
            return Err{describe(std::string(key) + "[" + std::to_string(i) + "]", decoded.error())};
        list.push_back(element);
    }
    return Ok{std::move(list)};
}

}  // namespace

Result<Scenario, std::string> Scenario::fromJson(const nlohmann::json& document, std::string name) {
    if (!document.is_object()) return Err{std::string("scenario: expected an object")};
    auto configuration = document.find("configuration");
    if (configuration == document.end() || configuration->is_null())
        return Err{std::string("configuration: missing required key")};
    auto decoded = decode<Configuration>(*configuration);
    if (decoded.hasError()) return Err{describe("configuration", decoded.error())};

    Scenario scenario;
    scenario.name = std::move(name);
    if (auto given = document.find("name"); given != document.end() && given->is_string())
        scenario.name = given->get<std::string>();
    scenario.configuration = *configuration;

    auto services = serviceList(document, "services");
    if (services.hasError()) return Err{services.error()};
    scenario.services = std::move(services).value();
    auto systemServices = serviceList(document, "system_services");
    if (systemServices.hasError()) return Err{systemServices.error()};
    scenario.systemServices = std::move(systemServices).value();

    if (auto after = document.find("next_checkin_after_seconds"); after != document.end() && !after->is_null()) {
        if (!after->is_number_integer() || after->get<std::int64_t>() < 0)
            return Err{std::string("next_checkin_after_seconds: expected a whole number of seconds")};
        scenario.nextCheckinAfterSeconds = after->get<std::int64_t>();
    }
    return Ok{std::move(scenario)};
}

Result<Scenario, std::string> Scenario::fromText(std::string_view text, std::string name) {
    auto document = parseJson(text);
    if (document.hasError()) return Err{"scenario: not JSON: " + document.error().reason};
    return fromJson(document.value(), std::move(name));
}

Result<Scenario, std::string> Scenario::fromFile(const std::filesystem::path& path) {
    std::ifstream in(path, std::ios::binary);
    if (!in) return Err{"cannot read " + path.string()};
    std::stringstream text;
    text << in.rdbuf();
    return fromText(text.str(), path.stem().string());
}

}  // namespace palomir::sandbox
