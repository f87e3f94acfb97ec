#pragma once

#include <cstdint>
#include <memory>
#include <span>
#include <string>
#include <utility>
#include <vector>

#include "zellive/platform/AudioInput.h"

namespace zellive::test {

/// Microphones that deliver what the test says, and write down what is asked of them.
struct FakeMicrophones : AudioInputService {
  struct Unit : AudioInputUnit {
    explicit Unit(FakeMicrophones& owner) : service(owner) {}
    ~Unit() override { service.calls += "gone "; }
    int start() override {
      service.calls += "start ";
      return service.startStatus;
    }
    int stop() override {
      service.calls += "stop ";
      return 0;
    }
    FakeMicrophones& service;
  };

  [[nodiscard]] std::vector<AudioInputDescription> devices() const override { return {{"fake", "Fake", 1, 48000}}; }
  [[nodiscard]] bool setPreferredInput(std::string_view) override { return true; }
  [[nodiscard]] std::unique_ptr<AudioInputUnit> makeUnit(const AudioStreamBasicDescription& description,
                                                         AudioInputUnit::InputCallback inputCallback,
                                                         int& status) override {
    format = description;
    status = makeStatus;
    if (status != 0) {
      return nullptr;
    }
    callback = std::make_shared<AudioInputUnit::InputCallback>(std::move(inputCallback));
    return std::make_unique<Unit>(*this);
  }

  /// A block from the microphone; what is left of it afterwards.
  std::vector<std::uint8_t> deliver(std::vector<std::uint8_t> block, int status = 0) const {
    const auto kept = callback;  // The call may end the unit.
    (*kept)(status, block);
    return block;
  }
  /// What was asked since the last look, as in "start stop gone ".
  std::string take() { return std::exchange(calls, {}); }

  int makeStatus = 0;
  int startStatus = 0;
  AudioStreamBasicDescription format;
  std::shared_ptr<AudioInputUnit::InputCallback> callback;
  std::string calls;
};

}  // namespace zellive::test
