#include <cctype>
#include <fstream>
#include <sstream>
#include <string>
#include <unordered_map>

#include "palomir/model.hpp"

namespace palomir {
namespace {

using MimeTable = std::unordered_map<std::string, std::string>;

// Used where the system keeps no mime.types (minimal containers, mobile).
MimeTable builtInTable() {
    return {
        {"txt", "text/plain"}, {"text", "text/plain"}, {"log", "text/plain"}, {"csv", "text/csv"},
        {"htm", "text/html"}, {"html", "text/html"}, {"css", "text/css"}, {"xml", "application/xml"},
        {"json", "application/json"}, {"js", "text/javascript"}, {"md", "text/markdown"},
        {"rtf", "application/rtf"}, {"pdf", "application/pdf"}, {"zip", "application/zip"},
        {"gz", "application/gzip"}, {"tar", "application/x-tar"}, {"png", "image/png"},
        {"jpg", "image/jpeg"}, {"jpeg", "image/jpeg"}, {"gif", "image/gif"}, {"bmp", "image/bmp"},
        {"tif", "image/tiff"}, {"tiff", "image/tiff"}, {"webp", "image/webp"}, {"heic", "image/heic"},
        {"svg", "image/svg+xml"}, {"ico", "image/vnd.microsoft.icon"}, {"mp3", "audio/mpeg"},
        {"wav", "audio/x-wav"}, {"m4a", "audio/mp4"}, {"mp4", "video/mp4"}, {"mov", "video/quicktime"},
        {"doc", "application/msword"},
        {"docx", "application/vnd.openxmlformats-officedocument.wordprocessingml.document"},
        {"xls", "application/vnd.ms-excel"},
        {"xlsx", "application/vnd.openxmlformats-officedocument.spreadsheetml.sheet"},
        {"ppt", "application/vnd.ms-powerpoint"},
        {"pptx", "application/vnd.openxmlformats-officedocument.presentationml.presentation"},
    };
}

std::string lowercase(std::string_view text) {
    std::string out(text);
    for (char& c : out) c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
    return out;
}

// Lines are "type ext ext ..."; '#' starts a comment. The first type listed
// for an extension wins. The system's list is read first; the built-in
// table fills what it lacks (it knows no "log", which Palomir attaches).
MimeTable loadTable() {
    std::ifstream file("/etc/mime.types");
    if (!file) return builtInTable();
    MimeTable table;
    std::string line;
    while (std::getline(file, line)) {
        if (const auto hash = line.find('#'); hash != std::string::npos) line.erase(hash);
        std::istringstream words(line);
        std::string type, extension;
        if (!(words >> type)) continue;
        while (words >> extension) table.emplace(lowercase(extension), type);
    }
    for (auto& [extension, type] : builtInTable()) table.emplace(extension, type);
    return table;
}

}  // namespace

std::string mimeTypeForExtension(std::string_view extension) {
    static const MimeTable table = loadTable();  // initialised once, thread-safe
    if (extension.empty()) return {};
    const auto it = table.find(lowercase(extension));
    return it == table.end() ? std::string() : it->second;
}

}  // namespace palomir
