#pragma once

#include "token/pin_prompt.h"

#include <deque>
#include <functional>
#include <mutex>
#include <string>
#include <vector>

namespace veltra::test {

/// A user who types the PINs that the test put in, in order, and cancels when none is left. Thread-safe.
class ScriptedPinPrompt final : public PinPrompt {
public:
    void willType(std::vector<std::string> pins) {
        const std::scoped_lock lock(mutex_);
        pins_.assign(pins.begin(), pins.end());
    }

    /// What the application does in its window procedures while the dialog is up.
    void whileAsked(std::function<void()> action) {
        const std::scoped_lock lock(mutex_);
        whileAsked_ = std::move(action);
    }

    /// What happened, in order: "ask" for every dialog, the text of every message box.
    std::vector<std::string> seen() const {
        const std::scoped_lock lock(mutex_);
        return seen_;
    }

    Pin askPin() override {
        const std::scoped_lock lock(mutex_);
        seen_.push_back("ask");
        if (whileAsked_) whileAsked_();
        if (pins_.empty()) return {};
        const Pin pin(pins_.front());
        pins_.pop_front();
        return pin;
    }

    void tell(const char* text) override {
        const std::scoped_lock lock(mutex_);
        seen_.push_back(text);
    }

private:
    mutable std::mutex mutex_;
    std::deque<std::string> pins_;
    std::vector<std::string> seen_;
    std::function<void()> whileAsked_;
};

} // namespace veltra::test
