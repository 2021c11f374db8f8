#pragma once

#include <atomic>

#include "palomir/client.hpp"

// Points the shared client at a local backend and waits until its first
// check-in completes; true when the check-in succeeded. The memory figures of
// both client benchmarks are taken around exactly these steps.
inline bool firstCheckin(palomir::Palomir& client, const char* baseURL, const char* trustAnchor,
                         const char* resourceDirectory, const char* queueLabel) {
    palomir::BackendOptions options;
    options.baseURL = baseURL;
    options.trustAnchors = {trustAnchor};
    options.resourceDirectory = resourceDirectory;
    client.setBackend(options);
    client.setAppCredentials(palomir::AppCredentials{"0b5c4f0e9a6d4e2f8c1a7b3d5e9f1a2b", "5f1e3c9a7b2d4e6f8a0c1b3d5e7f9a2c"});
    std::atomic<int> done{0};
    bool ok = false;
    auto queue = palomir::DispatchQueue::makeSerial(queueLabel);
    client.checkin(queue, [&](palomir::Result<palomir::Configuration, palomir::Error> result) {
        ok = result.hasValue();
        done.store(1);
        done.notify_one();
    });
    done.wait(0);
    return ok;
}
