#include "platform/host/Crc.h"

namespace Libraries::Filter::CRC {

namespace {

template <class State>
State initialState(bool reflected) {
    if (reflected) return typename std::variant_alternative_t<0, State>();
    return typename std::variant_alternative_t<1, State>();
}

template <class State>
void process(State& state, std::string_view bytes) {
    std::visit([bytes](auto& crc) { crc.process_bytes(bytes.data(), bytes.size()); }, state);
}

template <class State>
std::uint64_t checksum(const State& state) {
    return std::visit([](const auto& crc) -> std::uint64_t { return crc.checksum(); }, state);
}

}  // namespace

CRC32::CRC32(bool reflected) : state_(initialState<State>(reflected)) {}

Ref<CRC32> CRC32::create(Type type, bool reflected) {
    if (type != Type::Default) return nullptr;
    return Ref<CRC32>(new CRC32(reflected));
}

void CRC32::write(std::string_view bytes) {
    process(state_, bytes);
}

std::uint64_t CRC32::value() const {
    return checksum(state_);
}

CRC64::CRC64(bool reflected) : state_(initialState<State>(reflected)) {}

Ref<CRC64> CRC64::create(Type type, bool reflected) {
    if (type != Type::Default) return nullptr;
    return Ref<CRC64>(new CRC64(reflected));
}

void CRC64::write(std::string_view bytes) {
    process(state_, bytes);
}

std::uint64_t CRC64::value() const {
    return checksum(state_);
}

}  // namespace Libraries::Filter::CRC
