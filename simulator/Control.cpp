#include "simulator/Control.h"

#include <fmt/format.h>

#include <utility>

#include "simulator/ValueText.h"

namespace Simulator {

Control::Control(Simulation& simulation, std::string scenario)
    : simulation_(simulation), world_(simulation.world()), scenario_(std::move(scenario)) {}

const MethodTable<Control>& Control::methods() {
    static const MethodTable<Control> kMethods(
        kControl1,
        {
            {{"AddAdapter", "ssa{sv}", "o", "NAME ADDRESS PROPERTIES", "Show an adapter, as hci2"},
             &Control::addAdapter},
            {{"RemoveAdapter", "o", "", "ADAPTER", "Take an adapter away, with its devices"}, &Control::removeAdapter},
            {{"SetPowered", "ob", "", "ADAPTER ON", "Give an adapter power or take it; without, calls get NotReady"},
             &Control::setPowered},
            {{"AddDevice", "ossa{sv}", "o", "ADAPTER ADDRESS MODEL PROPERTIES", "Show a device that is kept"},
             &Control::addDevice},
            {{"PutInRange", "ossua{sv}", "o", "ADAPTER ADDRESS MODEL MS PROPERTIES",
              "Put a device on the air that an inquiry finds after that time"},
             &Control::putInRange},
            {{"RemoveDevice", "o", "", "DEVICE", "Take a device off the air"}, &Control::removeDevice},
            {{"PinCode", "o", "s", "DEVICE", "The pincode that was shown last for a device"}, &Control::pinCode},
            {{"TypePinCode", "os", "", "DEVICE PINCODE", "Type at a device that waits for its pincode"},
             &Control::typePinCode},
            {{"SetProperty", "ossvb", "", "OBJECT INTERFACE PROPERTY VALUE SIGNAL",
              "Set a property to any value of any type; SIGNAL: tell it"},
             &Control::setProperty},
            {{"DropProperty", "ossb", "", "OBJECT INTERFACE PROPERTY SIGNAL", "Take a property away"},
             &Control::dropProperty},
            {{"BreakProperty", "osss", "", "OBJECT INTERFACE PROPERTY ERROR",
              "Answer reads of a property with an error; an empty name mends it"},
             &Control::breakProperty},
            {{"AddObject", "oa(sa{sv})b", "", "OBJECT INTERFACES SIGNAL",
              "Show exactly these interfaces, in this order"},
             &Control::addObject},
            {{"RemoveObject", "ob", "", "OBJECT SIGNAL", "Take an object away that AddObject or a scenario added"},
             &Control::removeObject},
            {{"Load", "s", "", "SCENARIO", "End what is there and begin this scenario"}, &Control::loadScenario},
            {{"Reset", "", "", "", "Begin the present scenario anew"}, &Control::reset},
            {{"Scenarios", "", "a(ss)", "", "The scenarios"}, &Control::listScenarios},
            {{"Models", "", "a(ss)", "", "The kinds of devices"}, &Control::listModels},
            {{"Tune", "su", "", "WHAT MS",
              "Set a time: forget-after, type-after, retry-after, hasty-within, agent-timeout or seen-every; 0 is "
              "never"},
             &Control::tune},
            {{"Flood", "u", "", "RATE", "Tell so many changes of RSSI a second; 0 ends it"}, &Control::flood},
            {{"FloodSent", "", "t", "", "How many of them went out"}, &Control::floodSent},

            {{"AnswerLate", "ssuu", "", "PATH MEMBER COUNT MS", "Carry out the next calls only after this time"},
             &Control::answerLate},
            {{"Hold", "ssu", "", "PATH MEMBER COUNT", "Carry out the next calls only at Release"}, &Control::hold},
            {{"AnswerNever", "ssu", "", "PATH MEMBER COUNT", "Ignore the next calls"}, &Control::answerNever},
            {{"AnswerError", "ssuss", "", "PATH MEMBER COUNT ERROR TEXT", "Answer the next calls with an error"},
             &Control::answerError},
            {{"AnswerNormally", "", "", "", "Forget all of the above, and the calls that are held or late"},
             &Control::answerNormally},
            {{"Release", "", "u", "", "Carry out the calls that are held; tells how many"}, &Control::release},
            {{"Held", "", "u", "", "How many calls are held"}, &Control::held},
            {{"EmitSignal", "sossav", "", "DESTINATION PATH INTERFACE MEMBER ARGUMENTS",
              "Send any signal; an empty destination is everybody"},
             &Control::emitSignal},
            {{"CallClient", "sossuav", "ssav", "DESTINATION PATH INTERFACE MEMBER MS ARGUMENTS",
              "Call anything; MS: how long to wait, 0 wants no answer; tells error name and text, results"},
             &Control::callClient},
            {{"CallAgent", "ssuav", "ssav", "CLIENT MEMBER MS ARGUMENTS",
              "Call a client's agent; an empty client is the default agent, or the only one"},
             &Control::callAgent},
            {{"Agents", "", "a(sssb)", "", "The agents: client, path, capability, whether default"}, &Control::agents},
            {{"Calls", "ss", "a(tsssss)", "PATH MEMBER",
              "The calls so far: microseconds, sender, path, interface, member, arguments"},
             &Control::calls},
            {{"CallCount", "ss", "t", "PATH MEMBER", "How many there were"}, &Control::callCount},
            {{"WaitForCalls", "sstu", "t", "PATH MEMBER COUNT MS", "Wait until there were so many; tells how many"},
             &Control::waitForCalls},
            {{"ForgetCalls", "", "", "", "Begin counting anew"}, &Control::forgetCalls},
            {{"Quit", "", "", "", "End the simulator, with exit code 0"}, &Control::quit},
        });
    return kMethods;
}

bool Control::handle(const Call& call) {
    if (call.path() != kControlPath) return false;
    if (call.is(kIntrospectable, "Introspect", "")) {
        ObjectTree own(world_.bus);
        own.describe(kIntrospectable, {{"Introspect", "", "s"}});
        own.describe(kControl1, methods().infos());
        own.addExactly(kControlPath, {{kIntrospectable, {}}, {kControl1, {}}}, Notify::No);
        own.handle(call);
    } else if (!methods().dispatch(*this, call)) {
        call.failUnknown(true);
    }
    return true;
}

void Control::refuse(const Call& call, const std::string& reason) {
    call.fail("org.freedesktop.DBus.Error.InvalidArgs", reason);
}

}  // namespace Simulator
