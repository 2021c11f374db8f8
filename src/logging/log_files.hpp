#pragma once

#include <filesystem>
#include <optional>
#include <string>
#include <vector>

#include "palomir/logging.hpp"

// The log directory and its files, shared by the file logger's parts.
namespace palomir {

/// One line on standard output, where the library reports its own plumbing's failures.
void printLine(const std::string& text);

/// The absolute URL text of a file, as hosts see it in the printed path.
std::string fileUrlText(const std::filesystem::path& path);

/// A new file's path for a logger, the directory made; failures are printed.
std::optional<std::filesystem::path> newLogFileURL(const std::string& filePrefix);

/// Deletes the oldest of `oldFiles` (oldest first) so that `keep` remain with the next new file.
void pruneLogFiles(const std::vector<std::filesystem::path>& oldFiles, unsigned keep);

}  // namespace palomir
