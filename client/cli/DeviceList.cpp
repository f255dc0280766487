#include "client/cli/DeviceList.h"

#include <algorithm>
#include <set>

namespace btnode::cli {

namespace {

// Devices read again with each look, so that a look at a thousand of them does not keep the service busy.
constexpr std::size_t kAgainPerLook = 64;

}  // namespace

std::vector<std::size_t> DeviceList::look(const Limit& limit) {
    std::vector<std::size_t> touched;
    // A tree without devices has no folder for them, and a service that ended is noticed by its watch.
    const Result<std::vector<NodeName>> nodes = tree_.list();
    std::set<std::string> present;
    std::vector<NodeName> toRead;
    if (nodes) {
        for (const NodeName& each : *nodes) {
            if (each.kind != NodeKind::Device) continue;
            present.insert(each.full);
            const auto place = places_.find(each.full);
            if (place == places_.end() || devices_[place->second].event == Event::Gone) toRead.push_back(each);
        }
    }
    for (std::size_t at = 0; at < devices_.size(); ++at) {
        if (devices_[at].event != Event::Gone && !present.contains(devices_[at].node.full)) {
            devices_[at].event = Event::Gone;
            touched.push_back(at);
        }
    }
    for (std::size_t count = 0; count < std::min(kAgainPerLook, devices_.size()); ++count) {
        turn_ = (turn_ + 1) % devices_.size();
        if (devices_[turn_].event != Event::Gone) toRead.push_back(devices_[turn_].node);
    }

    const auto answers = tree_.readAll(toRead, deviceAttributes(), limit);
    for (std::size_t at = 0; at < toRead.size(); ++at) {
        // Vanished again, or not answering now: the next look tells.
        if (!answers[at] || answers[at]->front().empty()) continue;
        DeviceWords words = DeviceWords::of(*answers[at]);
        const auto [place, isNew] = places_.try_emplace(toRead[at].full, devices_.size());
        if (isNew) {
            devices_.push_back({toRead[at], std::move(words), looked_ ? Event::Found : Event::Known, looked_});
            touched.push_back(place->second);
        } else if (Device& device = devices_[place->second]; device.event == Event::Gone || device.words != words) {
            device.event = device.event == Event::Gone ? Event::Found : Event::Changed;
            device.isNew = device.isNew || device.event == Event::Found;
            device.words = std::move(words);
            touched.push_back(place->second);
        }
    }
    looked_ = true;
    return touched;
}

std::size_t DeviceList::present() const {
    return static_cast<std::size_t>(
        std::count_if(devices_.begin(), devices_.end(), [](const Device& each) { return each.event != Event::Gone; }));
}

const char* eventWord(DeviceList::Event event) {
    switch (event) {
        case DeviceList::Event::Known:
            return "known";
        case DeviceList::Event::Found:
            return "found";
        case DeviceList::Event::Changed:
            return "changed";
        case DeviceList::Event::Gone:
            break;
    }
    return "gone";
}

}  // namespace btnode::cli
