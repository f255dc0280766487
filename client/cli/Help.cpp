#include "client/cli/Help.h"

#include <algorithm>
#include <array>

namespace btnode::cli {

namespace {

constexpr std::array<VerbHelp, 13> kVerbs = {{
    {"list", "Show the tree: control nodes, adapters, devices",
     "KIND is control, adapters or devices; without one, all are listed.\n"
     "\n"
     "Examples:\n"
     "  btnode list\n"
     "  btnode list devices\n"
     "  btnode list --json | jq -r '.devices[] | .address + \" \" + .name'\n"},
    {"show", "Show all attributes and actions of a node",
     "Examples:\n"
     "  btnode show 00:11:22:33:44:55\n"
     "  btnode show master\n"
     "  btnode show Keyboard --json\n"},
    {"get", "Print attributes of a node, one value a line",
     "Prints the bare values in the order of the attributes; the entries of a list stand on one line.\n"
     "\n"
     "Examples:\n"
     "  btnode get 00:11:22:33:44:55 NAME\n"
     "  btnode get Keyboard STATUS PROFILES\n"
     "  btnode get 00:11:22:33:44:55 NAME STATUS --json\n"},
    {"do", "Execute actions on a node",
     "do NODE ACTION [PARAM...] [+ ACTION [PARAM...]]...\n"
     "\n"
     "A parameter is VALUE or NAME=VALUE. One bare VALUE is the action's own value; otherwise the parameters\n"
     "make the action's list of options. VALUE is\n"
     "  42, -7, 0x2a   an integer              none         nothing\n"
     "  i:-7           an integer, for sure    \"a, b\"       a string, with the escapes of JSON\n"
     "  s:42           a string, for sure      [V, N=V]     a list; in it, texts with , ] = or blanks need quotes\n"
     "  anything else  a string\n"
     "Ends with the code of the first action that failed.\n"
     "\n"
     "Examples:\n"
     "  btnode do master INQUIRY_START\n"
     "  btnode do Keyboard CONNECT TIMEOUT=30000\n"
     "  btnode do Headset ACTIVATE_PROFILE PROFILE=0x110b + WAIT_CONNECTED\n"},
    {"watch", "Print the name of a node whenever it changes",
     "Ends with code 9 when the node is withdrawn, with 0 after --for or --count. A first line on standard error says\n"
     "that the watch has begun; with --json it is the first object.\n"
     "\n"
     "Examples:\n"
     "  btnode watch Keyboard\n"
     "  btnode watch 00:11:22:33:44:55 --count 1\n"
     "  btnode watch Keyboard --for 60 --json\n"},
    {"scan", "Search for devices and list them as they appear",
     "Starts an inquiry on ADAPTER, or on all adapters, and stops it at the end: after --for, at Ctrl-C (code 130), or "
     "when\n"
     "something fails. In a pipe each line is an event (known, found, changed, gone), the address and the rest.\n"
     "\n"
     "Examples:\n"
     "  btnode scan --for 10\n"
     "  btnode scan 00:AA:01:00:00:00\n"
     "  btnode scan --for 10 --json | jq -r 'select(.event == \"found\") | .address'\n"},
    {"pair", "Pair with a device; prints the pincode to type on it",
     "Prints the pincode, when there is one, as a line of its own the moment it is known, then waits until the device "
     "is\n"
     "paired. Ctrl-C cancels the pairing. --timeout covers the whole of it (default: 60 seconds).\n"
     "\n"
     "Examples:\n"
     "  btnode pair 00:11:22:33:44:55\n"
     "  btnode pair Keyboard --timeout 120\n"
     "  btnode pair Keyboard --json\n"},
    {"wait", "Wait until a pairing that is under way has ended",
     "Code 0: paired, now or already.\n"
     "\n"
     "Examples:\n"
     "  btnode wait 00:11:22:33:44:55\n"
     "  btnode wait Keyboard --timeout 30\n"},
    {"cancel", "Cancel a pairing that is under way",
     "Does nothing to a device that is paired.\n"
     "\n"
     "Examples:\n"
     "  btnode cancel 00:11:22:33:44:55\n"
     "  btnode cancel Keyboard\n"},
    {"profiles", "List the profiles of a device",
     "Number, whether it was activated, and assigned name. The service learns them when a pairing succeeds.\n"
     "\n"
     "Examples:\n"
     "  btnode profiles Headset\n"
     "  btnode profiles 00:11:22:33:44:55 --json\n"},
    {"activate", "Connect a profile of a device",
     "PROFILE is a number (4363, 0x110b), a UUID (0000110b-0000-1000-8000-00805f9b34fb), or an assigned name or its\n"
     "beginning (case, blanks and punctuation do not count).\n"
     "\n"
     "Examples:\n"
     "  btnode activate Headset 0x110b\n"
     "  btnode activate Headset 'audio sink'\n"
     "  btnode activate 00:11:22:33:44:55 0000110b-0000-1000-8000-00805f9b34fb\n"},
    {"stop", "End the service and wait until it is gone",
     "Examples:\n"
     "  btnode stop\n"
     "  btnode stop --timeout 5\n"},
    {"help", "Show this help, or that of a verb",
     "Examples:\n"
     "  btnode help\n"
     "  btnode help pair\n"},
}};

}  // namespace

const std::string_view kNodeNames =
    "NODE is a full name (bluetooth/devices/00:11:22:33:44:55/device), 'service' or 'master', an address in any case,\n"
    "a NAME, or the beginning of an address or NAME, as long as it fits one node only.\n";

const std::string_view kExitCodes =
    "Exit codes:\n"
    "  0  done                          6  permission denied\n"
    "  1  the service answered failure  7  refused by the device or BlueZ\n"
    "  2  wrong usage                   8  pairing rejected\n"
    "  3  not found, or ambiguous       9  node withdrawn or service ended meanwhile\n"
    "  4  time-out                     10  service too busy\n"
    "  5  no service is running       130  interrupted by Ctrl-C (128 + signal)\n";

std::span<const VerbHelp> verbs() {
    return kVerbs;
}

const VerbHelp* findVerb(std::string_view verb) {
    const auto* const found =
        std::find_if(kVerbs.begin(), kVerbs.end(), [&](const VerbHelp& each) { return each.verb == verb; });
    return found == kVerbs.end() ? nullptr : found;
}

}  // namespace btnode::cli
