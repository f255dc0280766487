#ifndef SIMULATOR_CONTROL_H
#define SIMULATOR_CONTROL_H

#include <list>
#include <string>

#include "simulator/MethodTable.h"
#include "simulator/Simulation.h"

namespace Simulator {

inline constexpr const char* kControlPath = "/com/kelvo/simulator";
inline constexpr const char* kControl1 = "com.kelvo.simulator1";

/// The interface through which tests and people steer the simulator while it runs. What clients call there is neither
/// logged nor interfered with. Mistakes are answered with org.freedesktop.DBus.Error.InvalidArgs and change nothing.
class Control {
public:
    Control(Simulation& simulation, std::string scenario);

    /// Answers a call of the control object. False when the call is for another object.
    bool handle(const Call& call);

    static const MethodTable<Control>& methods();

private:
    // What there is: ControlWorld.cpp
    void addAdapter(const Call& call);
    void removeAdapter(const Call& call);
    void setPowered(const Call& call);
    void addDevice(const Call& call);
    void putInRange(const Call& call);
    void removeDevice(const Call& call);
    void pinCode(const Call& call);
    void typePinCode(const Call& call);
    void setProperty(const Call& call);
    void dropProperty(const Call& call);
    void breakProperty(const Call& call);
    void addObject(const Call& call);
    void removeObject(const Call& call);
    void loadScenario(const Call& call);
    void reset(const Call& call);
    void listScenarios(const Call& call);
    void listModels(const Call& call);
    void tune(const Call& call);
    void flood(const Call& call);
    void floodSent(const Call& call);

    // What happens on the bus: ControlBus.cpp
    void answerLate(const Call& call);
    void hold(const Call& call);
    void answerNever(const Call& call);
    void answerError(const Call& call);
    void answerNormally(const Call& call);
    void release(const Call& call);
    void held(const Call& call);
    void emitSignal(const Call& call);
    void callClient(const Call& call);
    void callAgent(const Call& call);
    void agents(const Call& call);
    void calls(const Call& call);
    void callCount(const Call& call);
    void waitForCalls(const Call& call);
    void forgetCalls(const Call& call);
    void quit(const Call& call);

    void put(const Call& call, const DevicePlan& plan);
    void interfere(const Call& call, Interference::Rule rule);
    void sendCall(const Call& call, const MessagePtr& message, const Value& arguments, milliseconds timeout);
    static void refuse(const Call& call, const std::string& reason);

    Simulation& simulation_;
    World& world_;
    std::string scenario_;
    std::list<PendingCall> outgoing_;
};

}  // namespace Simulator

#endif
