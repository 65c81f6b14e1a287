// SPDX-License-Identifier: MIT

#pragma once

#include <string>
#include <utility>

#include <zarip/core/Delegate.h>
#include <zarip/osa/Export.h>
#include <zarip/osa/Semaphore.h>

namespace zarip::core {

/// The outcome of an asynchronous call, which the call and its `AsyncResult` share. It counts references.
/// Programs use `CreateAsyncCall` instead. *Thread-safe*.
class ZARIP_EXPORT ResultMarshaller {
public:
    /// Makes an object with one reference, that of the call.
    ResultMarshaller();
    ResultMarshaller(const ResultMarshaller&) = delete;
    ResultMarshaller& operator=(const ResultMarshaller&) = delete;

    void AddRef();

    /// Removes a reference. The last one deletes the object.
    void RemoveRef();

    /// Waits for the end of the call. Deliberate: this can be done only once, and a second wait lasts for
    /// ever. Callers read a result once.
    void Join();

    /// Waits as `Join` does. If the call has thrown an exception, this throws `osa::Exception` with the
    /// message of that exception.
    void GetResult();

    void OnFinished();
    void OnException(const std::string& text);

    /// Removes the reference of the call. If the call never ran, its outcome is an exception "AsyncCall was
    /// deleted without having been called".
    void RemoveCallerRef();

protected:
    virtual ~ResultMarshaller();

private:
    int _references = 1;
    bool _finished = false;
    std::string _error;
    osa::Semaphore _ended{"ResultMarshaller", 1, 0};
};

/// The result of an asynchronous call, for the code that waits for it. *One thread at a time.*
class ZARIP_EXPORT AsyncResult {
public:
    /// Adds a reference of its own.
    explicit AsyncResult(ResultMarshaller* marshaller);
    AsyncResult(const AsyncResult&) = delete;
    AsyncResult& operator=(const AsyncResult&) = delete;
    ~AsyncResult();

    /// Waits for the end of the call. May be called once. If the call has thrown an exception, this throws
    /// `osa::Exception` with the message of that exception, or "unknown exception" if it is not a
    /// std::exception.
    void GetResult();

private:
    ResultMarshaller* _marshaller;
};

/// Makes a call that another thread runs. Returns a delegate, to be queued in a task queue, and the result;
/// the *caller owns* both. *Takes ownership* of the target, which is destroyed with the delegate.
ZARIP_EXPORT std::pair<IVoidDelegate0*, AsyncResult*> CreateAsyncCall(IVoidDelegate0* target);

}  // namespace zarip::core
