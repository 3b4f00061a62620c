// Every argument of every entry point, hostile: a call that works is made again and again with one argument
// replaced. Nothing crashes, what must be refused is refused with a reason, and a refusal hands nothing out.

#include "support/blob_bytes.h"
#include "support/provider_test.h"
#include "support/working_calls.h"

#include "foundation/text.h"

#include <algorithm>
#include <climits>
#include <iterator>

namespace veltra::test {
namespace {

using World = BothFrontEnds;

/// One hostile value of one argument.
struct Hostile {
    std::uintptr_t value;
    bool isRefused = false;
    std::optional<DWORD> length = {}; ///< what the variable holds that `value` points to
};

class HostileArgumentTest : public ProviderTest {
protected:
    HostileArgumentTest() { setLogLevel(0); }

    void play(const std::vector<WorkingCall>& all) {
        for (const WorkingCall& call : all) {
            world_ = nullptr;
            for (const std::uintptr_t choice : call.choices)
                play(call, choice);
        }
        EXPECT_GT(calls_, 5000);
    }

private:
    /// The world, new when an object of it is gone.
    World& world() {
        if (!world_ || world_->liveHandles().size() != objects_) {
            world_ = nullptr;
            world_ = std::make_unique<World>(freshName("Freed"));
            freed_ = world_->liveHandles();
            freedRecords_.clear();
            std::ranges::transform(freed_, std::back_inserter(freedRecords_), recordOf);
            world_ = nullptr;
            world_ = std::make_unique<World>(freshName("Hostile"));
            objects_ = world_->liveHandles().size();
            EXPECT_EQ(freed_.size(), objects_);
            EXPECT_TRUE(std::ranges::all_of(freed_, [](auto handle) { return kindOf(handle) == 0; }));
        }
        return *world_;
    }

    /// `size`: what the call needs for its output.
    std::vector<Hostile> hostileValues(World& w, const Argument& argument, DWORD size) const {
        std::vector<Hostile> all;
        const auto add = [&](const Values& values, bool isRefused) {
            for (const std::uintptr_t value : values)
                all.push_back({value, isRefused});
        };
        const Values sizes = {0, 1, size - 1, size, INT_MAX, MAXDWORD};
        if (argument.object()) {
            Values others = w.liveHandles();
            const int kind = kindOf(w.*argument.object());
            std::erase_if(others, [&](std::uintptr_t handle) { return kindOf(handle) == kind; });
            others.insert(others.end(), {0, 1, ~std::uintptr_t{0}, addressOf(w.data())});
            others.insert(others.end(), freed_.begin(), freed_.end());
            add(others, !argument.isOptional);
        } else if (argument.placeIn(w) != 0) {
            add({0}, !argument.isOptional);
        }
        for (const std::uintptr_t length : sizes)
            if (argument.name == "length" || (argument.name == "inOut" && length != INT_MAX))
                all.push_back({argument.placeIn(w), false, static_cast<DWORD>(length)});
        if (argument.name == "text") add({0}, !argument.isOptional);
        if (argument.name == "text") add({addressOf(longText_.data()), addressOf(L"")}, false);
        if (argument.name == "flags") add(bits(), false);
        if (argument.name == "capacity") add(sizes, false);
        if (argument.name == "size") {
            for (std::uintptr_t length = 0; length < w.input.size(); ++length)
                all.push_back({length});
            all.push_back({MAXDWORD});
        }
        return all;
    }

    DWORD invoke(const WorkingCall& call, World& w, const Values& values, std::optional<DWORD> length = {}) {
        w.resetOutput();
        if (length) w.out.length = *length;
        const Bytes before = w.out.bytes;
        ++calls_;
        prompt.willType({w.token.pin, w.token.pin});
        const DWORD code = call.invoke(values);
        EXPECT_NE(code, kNoReason);
        EXPECT_TRUE(code == 0 || w.out.handle == 0) << "a handle was handed out";
        EXPECT_TRUE(code == 0 || w.out.bytes == before) << "bytes were handed out";
        for (const std::uintptr_t handle : {w.out.handle, w.out.second})
            releaseAny(handle);
        return code;
    }

    void play(const WorkingCall& call, std::uintptr_t choice) {
        call.prepare(world());
        const DWORD code = invoke(call, world(), call.valuesIn(world(), choice));
        EXPECT_TRUE(code == 0 || call.outcome == Outcome::NeverServed || choice != call.choices[0])
            << call.name << " " << code;
        const DWORD size = world().out.length;
        for (std::size_t i = 0; i < call.arguments.size(); ++i) {
            for (std::size_t k = 0, count = 1; k < count; ++k) {
                World& w = world();
                call.prepare(w);
                const std::vector<Hostile> all = hostileValues(w, call.arguments[i], size);
                count = all.size();
                if (count == 0) break;
                Values values = call.valuesIn(w, choice);
                values[i] = all[k].value;
                SCOPED_TRACE(concat(call.name, " choice ", choice, ", argument ", i, ": 0x",
                                    toHexAddress(values[i]), ", length ", all[k].length.value_or(0)));
                const DWORD answer = invoke(call, w, values, all[k].length);
                EXPECT_FALSE(all[k].isRefused && answer == 0) << "accepted";
            }
        }
    }

    int calls_ = 0;
    std::unique_ptr<World> world_;
    std::size_t objects_ = 0;
    Values freed_;                                    ///< of every kind
    std::vector<std::shared_ptr<void>> freedRecords_; ///< so that none of them comes to life again
    const std::vector<WCHAR> longText_ = wideText(std::string(300, 'x'));
};

TEST_F(HostileArgumentTest, CryptoApi) {
    play(cspCalls());
}

TEST_F(HostileArgumentTest, Cng) {
    play(cngCalls());
}

} // namespace
} // namespace veltra::test
