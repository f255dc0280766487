#pragma once

#include <atomic>
#include <cstdint>
#include <vector>

#include "devices/SharedRef.h"
#include "platform/host/Containers.h"
#include "platform/host/String.h"

namespace Services::Bluetooth::Linux {

/// One profile that a device offers.
class Profile final : public RefCount {
public:
    /// Null when the text is no UUID that has a profile number: eight hexadecimal digits before its first "-".
    static Ref<Profile> parse(const Ref<String>& uuid);

    /// Exactly as BlueZ gave it.
    const Ref<String>& uuid() const noexcept { return uuid_; }
    /// The UUID's first eight digits.
    std::uint32_t number() const noexcept { return number_; }
    /// Whether the profile was connected through us.
    bool active() const noexcept { return active_.load(); }
    void setActive() noexcept { active_.store(true); }

private:
    Profile(Ref<String> uuid, std::uint32_t number) : uuid_(std::move(uuid)), number_(number) {}
    ~Profile() override = default;

    const Ref<String> uuid_;
    const std::uint32_t number_;
    std::atomic<bool> active_{false};
};

/// A device's profiles in BlueZ's order. Readers work on the list as it was when they asked: emptying it, which happens
/// at any time, disturbs nobody. Any thread; what must not come between two steps is kept out by the device's lock.
class ProfileList {
public:
    std::size_t count() const { return entries_.load()->items.size(); }
    /// Null beyond the end.
    Ref<Profile> at(std::size_t index) const;
    /// The first one with this number; null when there is none.
    Ref<Profile> find(std::uint32_t number) const;
    void append(const std::vector<Ref<Profile>>& more);
    void clear();

private:
    using Entries = TVector<Ref<Profile>>;

    // What it refers to is never changed, only replaced.
    SharedRef<Entries> entries_{Entries::create()};
};

}  // namespace Services::Bluetooth::Linux
