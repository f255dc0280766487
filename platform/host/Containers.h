#pragma once

#include <set>
#include <vector>

#include "platform/host/Object.h"

/// A growing sequence that is an object of its own, shared through Ref. Takes no lock: whoever shares it guards it.
template <class T>
class TVector final : public RefCount {
public:
    static Ref<TVector> create() { return Ref<TVector>(new TVector); }
    std::vector<T> items;

private:
    TVector() = default;
    ~TVector() override = default;
};

/// An ordered set that is an object of its own, shared through Ref. Takes no lock: whoever shares it guards it.
template <class T>
class TSet final : public RefCount {
public:
    static Ref<TSet> create() { return Ref<TSet>(new TSet); }
    std::set<T> items;

private:
    TSet() = default;
    ~TSet() override = default;
};

/// A list that is copied by value.
template <class T>
using TArray = std::vector<T>;
