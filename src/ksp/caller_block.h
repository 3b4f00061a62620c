#pragma once

#include "foundation/live_records.h"
#include "foundation/wide_text.h"

#include <cstdlib>
#include <memory>

namespace veltra {

/// One block on the C heap that is handed to the caller, who releases it with KSPFreeBuffer: `count` records,
/// zeroed, and behind them the texts that they point to, so that one release frees them all.
///
/// Blocks are remembered while the caller has them: KSPFreeBuffer releases nothing that was not handed out.
template <class Record>
class CallerBlock {
public:
    /// `textBytes`: the sum of the wideSize of the texts. Without memory the block is empty. One of no
    /// records can be handed out like every other.
    CallerBlock(std::size_t count, std::size_t textBytes)
        : memory_(std::calloc(1, std::size_t{1} + count * sizeof(Record) + textBytes), std::free),
          textOffset_(count * sizeof(Record)) {}
    CallerBlock(const CallerBlock&) = delete;
    CallerBlock& operator=(const CallerBlock&) = delete;

    explicit operator bool() const { return memory_ != nullptr; }

    Record& operator[](std::size_t index) { return static_cast<Record*>(memory_.get())[index]; }

    /// Puts a text behind the records and those that were put there before.
    LPWSTR addText(std::string_view ascii) {
        auto* text = static_cast<unsigned char*>(memory_.get()) + textOffset_;
        writeWide(ascii, text);
        textOffset_ += wideSize(ascii);
        return reinterpret_cast<LPWSTR>(text);
    }

    /// From here on the block is the caller's.
    Record* handOut() {
        auto* records = static_cast<Record*>(memory_.get());
        LiveRecords<void>::add(std::move(memory_));
        return records;
    }

private:
    std::shared_ptr<void> memory_;
    std::size_t textOffset_;
};

} // namespace veltra
