// SPDX-License-Identifier: MIT

#pragma once

#include <string>
#include <utility>

#include <zarip/core/Delegate.h>
#include <zarip/osa/Export.h>
#include <zarip/osa/Semaphore.h>

namespace zarip::core {

/// The outcome of an asynchronous call, shared by the call and its result. *Thread-safe*; reference-counted.
class ZARIP_EXPORT ResultMarshaller {
public:
    /// Counts one reference: the caller's.
    ResultMarshaller();
    ResultMarshaller(const ResultMarshaller&) = delete;
    ResultMarshaller& operator=(const ResultMarshaller&) = delete;

    void AddRef();

    /// Deletes the object with the last reference.
    void RemoveRef();

    /// Waits for the end of the call. Deliberate: this can be done once, and a second wait lasts for ever.
    /// Callers read a result once.
    void Join();

    /// Joins. If the call threw, it then throws `osa::Exception` with the message of that exception.
    void GetResult();

    void OnFinished();
    void OnException(const std::string& text);

    /// Removes the call's reference. A call that never ran ends with the message "AsyncCall was deleted
    /// without having been called".
    void RemoveCallerRef();

protected:
    virtual ~ResultMarshaller();

private:
    int _references = 1;
    bool _finished = false;
    std::string _error;
    osa::Semaphore _ended{"ResultMarshaller", 1, 0};
};

/// The caller's end of an asynchronous call. *One thread at a time.*
class ZARIP_EXPORT AsyncResult {
public:
    /// Takes a reference of its own.
    explicit AsyncResult(ResultMarshaller* marshaller);
    AsyncResult(const AsyncResult&) = delete;
    AsyncResult& operator=(const AsyncResult&) = delete;
    ~AsyncResult();

    /// Waits for the end of the call. If the call threw, it throws `osa::Exception` with the message of that
    /// exception, or "unknown exception" for one that is not a std::exception. To be called once.
    void GetResult();

private:
    ResultMarshaller* _marshaller;
};

/// Makes a call that another thread runs: a delegate to queue (*caller owns*, a task queue takes it) and the
/// result (*caller owns*). *Takes ownership* of the target, which is destroyed with the call.
ZARIP_EXPORT std::pair<IVoidDelegate0*, AsyncResult*> CreateAsyncCall(IVoidDelegate0* target);

}  // namespace zarip::core
