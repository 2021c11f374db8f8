#pragma once

// Shared by the C facade's translation units: the handle structures behind
// the opaque C types and the helpers that turn C++ outcomes into PLError.

#include <atomic>
#include <exception>
#include <memory>
#include <new>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "palomir/api_client.hpp"
#include "palomir/dispatch.hpp"
#include "palomir/errors.hpp"
#include "palomir/model.hpp"
#include "palomir/palomir.h"

struct PLError {
    PLErrorCode code;
    std::string description;
};

struct PLConfiguration {
    explicit PLConfiguration(palomir::Configuration c);

    mutable std::atomic<int> references{1};
    const palomir::Configuration value;
    // Fixed at creation: the facade's reading, and the values the model only
    // hands out by copy (accessors return pointers into the handle).
    const PLLockdownResult lockdown;
    const std::optional<std::string> worstServiceIdentifier;
    // The notes' identifiers as text, the configuration's notes first, then the lockdown's.
    const std::vector<std::string> noteIdentifiers;
};

struct PLServices {
    mutable std::atomic<int> references{1};
    const std::vector<palomir::Service> value;
    const palomir::MaxAge maxAge;
};

struct PLAttachment {
    palomir::Attachment value;
};

struct PLQueue {
    std::shared_ptr<palomir::DispatchQueue> queue;
};

namespace palomir::capi {

PLError* makeError(PLErrorCode code, std::string description) noexcept;

/// Stores `made` into `*out` when the caller asked for details; frees it otherwise.
void report(PLError** out, PLError* made) noexcept;
inline void clear(PLError** out) noexcept {
    if (out) *out = nullptr;
}

/// Reports PL_ERROR_INVALID_ARGUMENT naming `name`; returns false.
bool invalidArgument(PLError** out, std::string_view name) noexcept;
/// Reports the exception being handled as PL_ERROR_INTERNAL; returns false.
bool internalFailure(PLError** out) noexcept;

PLError translate(const Error& error);
PLError translate(const PalomirError& error);

}  // namespace palomir::capi
