#include "simulator/Device.h"

#include <fmt/format.h>

#include <algorithm>
#include <string_view>

namespace Simulator {

namespace {

// Until the kernel tells that the link of a failed pairing is gone.
constexpr milliseconds kLinkDown{20};

// Services that tell something and that nothing in bluetoothd connects: GAP, GATT, device information, device ID.
constexpr std::string_view kOnlyListed[] = {
    "00001800-0000-1000-8000-00805f9b34fb", "00001801-0000-1000-8000-00805f9b34fb",
    "0000180a-0000-1000-8000-00805f9b34fb", "00001200-0000-1000-8000-00805f9b34fb"};

constexpr const char* kMediaControl1 = "org.bluez.MediaControl1";

std::string pathOf(const std::string& adapterPath, std::string address) {
    std::replace(address.begin(), address.end(), ':', '_');
    return adapterPath + "/dev_" + address;
}

/// A list among the plan's properties comes before that of the model.
Value servicesOf(const DevicePlan& plan, const Model& model) {
    const Value* planned = find(plan.properties, "UUIDs");
    return planned && planned->signature() == "as" ? *planned : model.services;
}

/// What bluetoothd tells of a device, in its order.
NamedValues describe(const std::string& adapterPath, const DevicePlan& plan, const Model& model) {
    NamedValues values{
        {"Address", Value::string(plan.address)},
        {"AddressType", Value::string("public")},
        {"Name", Value::string(model.alias)},
        {"Alias", Value::string(model.alias)},
        {"Class", Value::uint32(model.classOfDevice)},
        {"Icon", Value::string(model.icon)},
        {"Paired", Value::boolean(false)},
        {"Bonded", Value::boolean(false)},
        {"Trusted", Value::boolean(false)},
        {"Blocked", Value::boolean(false)},
        {"LegacyPairing", Value::boolean(false)},
        {"Connected", Value::boolean(false)},
        {"UUIDs", model.services},
        {"Adapter", Value::objectPath(adapterPath)},
        {"ServicesResolved", Value::boolean(false)},
    };
    if (const Value* isPaired = find(plan.properties, "Paired")) put(values, {{"Bonded", *isPaired}});
    put(values, model.properties);
    put(values, plan.properties);
    return values;
}

std::vector<Property> properties(NamedValues values, const Model& model) {
    const auto isIn = [](const std::vector<std::string>& names, const std::string& name) {
        return std::find(names.begin(), names.end(), name) != names.end();
    };
    std::vector<Property> properties;
    for (auto& each : values) {
        const std::string& name = each.first;
        if (isIn(model.without, name) || (name == "Icon" && model.icon.empty())) continue;
        properties.push_back(
            {name, std::move(each.second), isIn(model.unreadable, name) ? Errors::kUnreadable.name : ""});
    }
    return properties;
}

}  // namespace

Device::Device(World& world, const std::string& adapterPath, const DevicePlan& plan, const Model& model, Leave leave,
               std::function<void()> unbusy)
    : world_(world),
      path_(pathOf(adapterPath, plan.address)),
      model_(model),
      services_(servicesOf(plan, model)),
      isKnown_(!plan.foundAfter),
      leave_(std::move(leave)),
      unbusy_(std::move(unbusy)) {
    auto values = describe(adapterPath, plan, model);
    if (!isKnown_) {
        values.emplace_back("RSSI", Value::int16(world.newRssi()));
        values.emplace_back("TxPower", Value::int16(0));
    }
    world_.objects.add(path_, {kDevice1, properties(std::move(values), model)});
    world_.narrator.event(fmt::format("{} appears: \"{:.60}\", which {}", path_, model.alias, model.summary));
}

Device::~Device() {
    if (pairing_) pairing_->answer(Errors::kConnectionAttemptFailed);
    pairing_.reset();
    if (connectCall_) connectCall_->fail("org.bluez.Error.Failed", "Software caused connection abort");
    world_.narrator.event(fmt::format("{} goes away", path_));
    world_.objects.remove(path_);
}

const MethodTable<Device>& Device::methods() {
    static const MethodTable<Device> kMethods(kDevice1, {{{"Pair", "", ""}, &Device::pair},
                                                         {{"CancelPairing", "", ""}, &Device::cancelPairing},
                                                         {{"Connect", "", ""}, &Device::connect},
                                                         {{"Disconnect", "", ""}, &Device::disconnect},
                                                         {{"ConnectProfile", "s", ""}, &Device::connectProfile},
                                                         {{"DisconnectProfile", "s", ""}, &Device::disconnectProfile}});
    return kMethods;
}

char Device::writableType(const std::string& property) {
    if (property == "Alias") return 's';
    return property == "Trusted" || property == "Blocked" ? 'b' : '\0';
}

void Device::write(const std::string& property, const Value& value) {
    // An empty alias brings the name back that the device gives itself.
    const bool isReset = property == "Alias" && value.text().empty();
    world_.objects.set(path_, kDevice1, property, isReset ? Value::string(model_.alias) : value);
}

bool Device::isTrue(const char* property) const {
    const Value* value = world_.objects.get(path_, kDevice1, property);
    return value && value->isTrue();
}

bool Device::isReachable() const {
    const Value* isPowered = world_.objects.get(path_.substr(0, path_.rfind('/')), kAdapter1, "Powered");
    return isPowered && isPowered->isTrue();
}

void Device::pair(const Call& call) {
    if (pairing_) return call.fail(Errors::kInProgress);
    if (isTrue("Bonded")) return call.fail(Errors::kAlreadyExists);
    if (!isReachable()) return call.fail(Errors::kAuthenticationFailed);
    forgetting_.stop();
    pairing_ = std::make_unique<Pairing>(world_, *this, call, model_.pairing);
    pairing_->go();
}

void Device::cancelPairing(const Call& call) {
    if (pairing_) {
        pairingEnded(Errors::kAuthenticationCanceled);
        return call.reply();
    }
    // bluetoothd drops the bond in the kernel, which ends the connection, but goes on telling that it is paired.
    showConnected(false);
    call.fail(Errors::kDoesNotExist);
}

void Device::pairingEnded(const std::optional<Error>& error) {
    const auto ended = std::move(pairing_);
    if (!error) showPaired();
    unbusy_();
    ended->answer(error);
    forgetAfter(error ? std::min(kLinkDown, world_.tuning.forgetAfter) : world_.tuning.forgetAfter);
}

/// In this order, and before it answers Pair, bluetoothd tells of a new bond.
void Device::showPaired() {
    tell({{"Bonded", Value::boolean(true)}, {"Connected", Value::boolean(true)}});
    if (model_.icon == "audio-headset") {
        world_.objects.addInterface(path_, {kMediaControl1, {{"Connected", Value::boolean(false), {}}}});
    }
    tell({{"UUIDs", services_}, {"ServicesResolved", Value::boolean(true)}, {"Paired", Value::boolean(true)}});
}

void Device::showConnected(bool isConnected) {
    tell({{"Connected", Value::boolean(isConnected)}, {"ServicesResolved", Value::boolean(isConnected)}});
    if (!isConnected) forgetAfter(world_.tuning.forgetAfter);
}

/// Changes the properties, but for those that the model has values of its own for.
void Device::tell(const NamedValues& values) {
    NamedValues changed = values;
    std::erase_if(changed, [this](const auto& value) { return find(model_.properties, value.first) != nullptr; });
    world_.objects.setAll(path_, kDevice1, changed);
}

bool Device::type(const std::string& pinCode) {
    return pairing_ && pairing_->type(pinCode);
}

void Device::vanish(bool isSilent) {
    if (isSilent) pairing_.reset();
    leave(true);
}

void Device::leave(bool isOffTheAir) {
    const auto leave = std::move(leave_);  // the device, and this member with it, is gone when it returns
    leave(isOffTheAir);
}

void Device::connect(const Call& call) {
    if (connectCall_) return call.fail(Errors::kConnectionBusy);
    if (!isReachable()) return call.fail(Errors::kConnectionNotPowered);
    if (isTrue("Connected")) return call.reply();
    connectCall_ = call;
    connecting_ = world_.loop.after(milliseconds(50), [this] {
        showConnected(true);
        connectCall_->reply();
        connectCall_.reset();
    });
}

void Device::disconnect(const Call& call) {
    if (!isTrue("Connected")) return call.fail(Errors::kNotConnected);
    if (pairing_) pairingEnded(Errors::kAuthenticationCanceled);
    showConnected(false);
    call.reply();
}

void Device::connectProfile(const Call& call) {
    if (connectCall_) return call.fail(Errors::kConnectionBusy);
    if (!isReachable()) return call.fail(Errors::kConnectionNotPowered);
    const std::string wanted = call.arguments()[0].text();
    const auto& services = services_.elements();
    const bool isOffered =
        std::any_of(services.begin(), services.end(),
                    [&](const Value& service) { return service.isText() && service.text() == wanted; }) &&
        std::find(std::begin(kOnlyListed), std::end(kOnlyListed), wanted) == std::end(kOnlyListed);
    connectCall_ = call;
    if (model_.profileDelay == kNever) return;
    connecting_ = world_.loop.after(model_.profileDelay, [this, isOffered] {
        const Call answered = *connectCall_;
        connectCall_.reset();
        if (model_.profileError) return answered.fail(*model_.profileError);
        if (!isOffered) return answered.fail(Errors::kConnectionUnavailable);
        showConnected(true);
        answered.reply();
    });
}

void Device::disconnectProfile(const Call& call) {
    if (!isTrue("Connected")) return call.fail(Errors::kNotConnected);
    call.reply();
}

void Device::clientGone(const std::string& client) {
    if (pairing_ && pairing_->isOf(client)) pairingEnded(Errors::kAuthenticationCanceled);
}

void Device::seen() {
    tell({{"RSSI", Value::int16(world_.newRssi())}, {"TxPower", Value::int16(0)}});
    if (forgetting_.isRunning()) forgetAfter(world_.tuning.forgetAfter);
}

void Device::unseen() {
    world_.objects.drop(path_, kDevice1, {"TxPower", "RSSI"});
    forgetAfter(world_.tuning.forgetAfter);
}

void Device::poweredOff() {
    if (pairing_) pairingEnded(Errors::kAuthenticationFailed);
    showConnected(false);
    if (isKept()) {
        unseen();
    } else {
        leave(false);
    }
}

bool Device::isKept() const {
    return isKnown_ || pairing_ || isTrue("Bonded") || isTrue("Connected");
}

void Device::forgetAfter(milliseconds patience) {
    forgetting_.stop();
    if (patience == milliseconds(0) || isKept()) return;
    forgetting_ = world_.loop.after(patience, [this] { leave(false); });
}

}  // namespace Simulator
