#pragma once

#include "foundation/text.h"
#include "foundation/utils.h"

#include <new>
#include <string>
#include <utility>

namespace veltra {

/// Logs why an entry point was ended by an exception; nothing thrown while doing so gets out.
inline void reportException(const char* entryPoint, const char* reason) noexcept {
    try {
        Utils::error(concat(entryPoint, ": ", reason));
    } catch (...) {
        // No memory is left for the line: the caller's answer says so all the same.
        return;
    }
}

/// What an entry point answers when an exception ended it.
template <class Answer>
struct ExceptionAnswers {
    Answer outOfMemory;
    Answer unexpected;
};

/// Runs the body of an entry point and lets no exception out: that is logged under the entry point's name.
template <class Answer, class Body>
Answer runGuarded(const char* name, const ExceptionAnswers<Answer>& answers, Body&& body) noexcept {
    try {
        return std::forward<Body>(body)();
    } catch (const std::bad_alloc&) {
        reportException(name, "out of memory");
        return answers.outOfMemory;
    } catch (...) {
        reportException(name, "unexpected exception");
        return answers.unexpected;
    }
}

/// Frame of the entry points of both front ends: logs the name, runs `body`, and lets no exception out.
template <class Answer, class Body>
Answer runEntryPoint(const char* name, const ExceptionAnswers<Answer>& answers, Body&& body) noexcept {
    Utils::debug(name);
    return runGuarded(name, answers, std::forward<Body>(body));
}

} // namespace veltra
