#include "palomir/notification_center.hpp"

#include <algorithm>
#include <atomic>

namespace palomir {

struct NotificationCenter::Entry {
    std::uint64_t id = 0;
    std::string name;
    std::shared_ptr<DispatchQueue> queue;
    Observer observer;
    // Checked at delivery, so that a removal also stops deliveries already
    // queued or gathered by a post running on another thread.
    std::atomic<bool> removed{false};
};

NotificationCenter::NotificationCenter() = default;

NotificationCenter::~NotificationCenter() {
    std::lock_guard lock(_mutex);
    for (auto& entry : _entries) entry->removed = true;
}

NotificationCenter::Token NotificationCenter::addObserver(std::string name, std::shared_ptr<DispatchQueue> queue,
                                                          Observer observer) {
    auto entry = std::make_shared<Entry>();
    entry->name = std::move(name);
    entry->queue = std::move(queue);
    entry->observer = std::move(observer);
    std::lock_guard lock(_mutex);
    entry->id = _nextId++;
    _entries.push_back(entry);
    return Token(entry->id);
}

void NotificationCenter::removeObserver(const Token& token) {
    if (!token.valid()) return;
    std::shared_ptr<Entry> removed;
    {
        std::lock_guard lock(_mutex);
        const auto it = std::find_if(_entries.begin(), _entries.end(),
                                     [&](const auto& entry) { return entry->id == token._id; });
        if (it == _entries.end()) return;
        removed = std::move(*it);
        _entries.erase(it);
    }
    removed->removed = true;
    // `removed` may hold the last reference to the observer's captures; it
    // dies here, outside the lock.
}

void NotificationCenter::post(std::string_view name, std::any object) {
    std::vector<std::shared_ptr<Entry>> targets;
    {
        std::lock_guard lock(_mutex);
        for (const auto& entry : _entries) {
            if (entry->name == name) targets.push_back(entry);
        }
    }
    if (targets.empty()) return;
    auto notification = std::make_shared<const Notification>(Notification{std::string(name), std::move(object)});
    // Observers run without the lock held, so they may add or remove
    // observers and post again.
    for (auto& entry : targets) {
        if (entry->removed) continue;
        if (entry->queue) {
            entry->queue->async([entry, notification] {
                if (!entry->removed && entry->observer) entry->observer(*notification);
            });
        } else if (entry->observer) {
            entry->observer(*notification);
        }
    }
}

}  // namespace palomir
