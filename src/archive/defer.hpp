// Scope guard that runs an action always, only when the scope is left by an exception,
// or only when it is left normally. Used for breadcrumb lines and the call timing lines.
#pragma once

#include "support/log.hpp"

#include <exception>
#include <functional>
#include <stdexcept>
#include <utility>

namespace QOB {

enum class DeferCondition : int { Always = 0, OnFailure = 1, OnSuccess = 2, Dismissed = 3 };

class Deferred {
public:
    // Counting exceptions in flight (not asking whether any is) lets a guard created during
    // unwinding judge only its own scope.
    Deferred(DeferCondition condition, std::function<void()>&& action)
        : action_(std::move(action)), condition_(condition),
          exceptionsAtStart_(std::uncaught_exceptions()) {
        action = nullptr; // the source is left empty whatever the library's move does
    }

    Deferred(const Deferred&) = delete;
    Deferred& operator=(const Deferred&) = delete;

    ~Deferred() noexcept {
        const bool failing = exceptionsAtStart_ < std::uncaught_exceptions();
        bool run = false;
        switch (condition_) {
        case DeferCondition::Always:
            run = true;
            break;
        case DeferCondition::OnFailure:
            run = failing;
            break;
        case DeferCondition::OnSuccess:
            run = !failing;
            break;
        case DeferCondition::Dismissed:
            break;
        default:
            InvalidCondition(); // ends the process: the destructor is noexcept
        }
        if (run) {
            action_();
        }
        condition_ = DeferCondition::Dismissed;
        action_ = nullptr;
    }

private:
    [[noreturn]] static void InvalidCondition() {
        throw std::invalid_argument("invalid DeferCondition");
    }

    std::function<void()> action_;
    DeferCondition condition_;
    int exceptionsAtStart_;
};

} // namespace QOB

#define QOB_DEFER_CONCAT2(a, b) a##b
#define QOB_DEFER_CONCAT(a, b) QOB_DEFER_CONCAT2(a, b)

// Logs "in <context>" at ERROR if the enclosing scope is left by an exception.
// context is evaluated when the guard fires, so it may name locals of the scope.
#define QOB_FAILURE_TRAIL(context)                                                                 \
    ::QOB::Deferred QOB_DEFER_CONCAT(qobTrail_, __LINE__)(::QOB::DeferCondition::OnFailure,        \
                                                          [&] { ::QOB::LogError(context); })
