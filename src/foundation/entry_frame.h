#pragma once

#include "foundation/utils.h"

#include <new>
#include <utility>

namespace veltra {

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
        Utils::error(name, ": out of memory");
        return answers.outOfMemory;
    } catch (...) {
        Utils::error(name, ": unexpected exception");
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
