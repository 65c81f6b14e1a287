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

    /// Waits for the end of the call. Deliberate: it can be waited for once; a second wait lasts for
    /// ever. Callers read a result once.
    void Join();

    /// Joins, then throws `osa::Exception` with the text of what the call threw, if it did.
    void GetResult();

    void OnFinished();
    void OnException(const std::string& text);

    /// Gives up the call's reference; a call that never ran ends as "AsyncCall was deleted without having
    /// been called".
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

    /// Waits for the end of the call; throws `osa::Exception` with the text of what it threw ("unknown
    /// exception" for what is no std::exception). To be called once.
    void GetResult();

private:
    ResultMarshaller* _marshaller;
};

/// Makes a call that somebody else runs: a delegate to queue (*caller owns*, a task queue takes it) and the
/// result (*caller owns*). *Takes ownership* of the target, which may be destroyed with the call at any time.
ZARIP_EXPORT std::pair<IVoidDelegate0*, AsyncResult*> CreateAsyncCall(IVoidDelegate0* target);

}  // namespace zarip::core
