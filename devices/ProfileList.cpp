#include "devices/ProfileList.h"

#include "platform/host/StrConv.h"

namespace Services::Bluetooth::Linux {

Ref<Profile> Profile::parse(const Ref<String>& uuid) {
    constexpr std::size_t kDigits = 8;
    if (uuid->find("-") != kDigits) return nullptr;
    unsigned int number = 0;
    if (!StrConv::num(uuid->view().substr(0, kDigits), &number, 16)) return nullptr;
    return Ref<Profile>(new Profile(uuid, number));
}

Ref<Profile> ProfileList::at(std::size_t index) const {
    const Ref<Entries> entries = entries_.load();
    return index < entries->items.size() ? entries->items[index] : nullptr;
}

Ref<Profile> ProfileList::find(std::uint32_t number) const {
    const Ref<Entries> entries = entries_.load();
    for (const Ref<Profile>& profile : entries->items) {
        if (profile->number() == number) return profile;
    }
    return nullptr;
}

void ProfileList::append(const std::vector<Ref<Profile>>& more) {
    if (more.empty()) return;
    Ref<Entries> before;
    Ref<Entries> after;
    do {  // again when it was emptied meanwhile: what was dropped stays dropped
        before = entries_.load();
        after = Entries::create();
        after->items = before->items;
        after->items.insert(after->items.end(), more.begin(), more.end());
    } while (!entries_.replace(before, after));
}

void ProfileList::clear() {
    entries_.store(Entries::create());
}

}  // namespace Services::Bluetooth::Linux
