#pragma once

#include <map>
#include <string>
#include <vector>

#include "btnode/Limit.h"
#include "btnode/Tree.h"
#include "client/cli/DeviceWords.h"

namespace btnode::cli {

/// The devices of a tree, followed by looking at it again and again.
class DeviceList {
public:
    enum class Event { Known, Found, Changed, Gone };

    struct Device {
        NodeName node;
        DeviceWords words;
        /// The last that happened to it.
        Event event;
        /// Whether it appeared after the first look.
        bool isNew;
    };

    explicit DeviceList(Tree tree) : tree_(std::move(tree)) {}

    /// Looks at the tree: new devices are read at once, the others in turns. Gives the places in `devices` of those to
    /// which something happened. The first look finds the Known ones.
    std::vector<std::size_t> look(const Limit& limit);

    /// In the order in which they appeared; devices that are gone stay.
    const std::vector<Device>& devices() const { return devices_; }
    std::size_t present() const;

private:
    Tree tree_;
    std::vector<Device> devices_;
    std::map<std::string, std::size_t> places_;
    std::size_t turn_ = 0;
    bool looked_ = false;
};

const char* eventWord(DeviceList::Event event);

}  // namespace btnode::cli
