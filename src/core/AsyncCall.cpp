// SPDX-License-Identifier: MIT

#include "zarip/core/AsyncCall.h"

#include <cxxabi.h>

#include <exception>
#include <memory>

#include "zarip/osa/Exception.h"
#include "zarip/osa/Interlocked.h"

namespace zarip::core {

namespace {

/// The call. It owns one reference to the outcome, and the target.
class AsyncCall final : public IVoidDelegate0 {
public:
    AsyncCall(ResultMarshaller* marshaller, std::unique_ptr<IVoidDelegate0> target)
        : _marshaller(marshaller), _target(std::move(target)) {
        _marshaller->AddRef();
    }
    AsyncCall(const AsyncCall&) = delete;
    AsyncCall& operator=(const AsyncCall&) = delete;
    ~AsyncCall() override {
        _target.reset();
        _marshaller->RemoveCallerRef();
    }

    void Call() override {
        try {
            _target->Call();
        } catch (const abi::__forced_unwind&) {
            throw;  // pthread_exit: the call ends with its deletion
        } catch (const std::exception& e) {
            _marshaller->OnException(e.what());
            return;
        } catch (...) {
            _marshaller->OnException("unknown exception");
            return;
        }
        _marshaller->OnFinished();
    }

    bool Matches(const void* object) const override { return _target->Matches(object); }

private:
    ResultMarshaller* _marshaller;
    std::unique_ptr<IVoidDelegate0> _target;
};

struct ReferenceRemover {
    void operator()(ResultMarshaller* marshaller) const { marshaller->RemoveRef(); }
};

}  // namespace

ResultMarshaller::ResultMarshaller() = default;

ResultMarshaller::~ResultMarshaller() = default;

void ResultMarshaller::AddRef() {
    osa::Interlocked::Increment(_references);
}

void ResultMarshaller::RemoveRef() {
    if (osa::Interlocked::Decrement(_references) == 0) {
        delete this;
    }
}

void ResultMarshaller::Join() {
    _ended.Lock();
}

void ResultMarshaller::GetResult() {
    Join();
    if (!_error.empty()) {
        throw osa::Exception(_error);
    }
}

void ResultMarshaller::OnFinished() {
    if (!_finished) {
        _finished = true;
        _ended.Release();
    }
}

void ResultMarshaller::OnException(const std::string& text) {
    if (!_finished) {
        _error = text;
        OnFinished();
    }
}

void ResultMarshaller::RemoveCallerRef() {
    OnException("AsyncCall was deleted without having been called");
    RemoveRef();
}

AsyncResult::AsyncResult(ResultMarshaller* marshaller) : _marshaller(marshaller) {
    _marshaller->AddRef();
}

AsyncResult::~AsyncResult() {
    _marshaller->RemoveRef();
}

void AsyncResult::GetResult() {
    _marshaller->GetResult();
}

std::pair<IVoidDelegate0*, AsyncResult*> CreateAsyncCall(IVoidDelegate0* target) {
    std::unique_ptr<IVoidDelegate0> owned(target);
    if (!owned) {
        throw osa::Exception("Invalid parameter");
    }
    const std::unique_ptr<ResultMarshaller, ReferenceRemover> marshaller(new ResultMarshaller);
    auto call = std::make_unique<AsyncCall>(marshaller.get(), std::move(owned));
    auto result = std::make_unique<AsyncResult>(marshaller.get());
    return {call.release(), result.release()};
}

}  // namespace zarip::core
