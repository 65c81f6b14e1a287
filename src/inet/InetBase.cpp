// SPDX-License-Identifier: MIT

#include "zarip/inet/InetBase.h"

#include "cutil/gettime.h"

namespace zarip::inet {

namespace {

constexpr _ipaddr_t kNoAddress = {"0.0.0.0", "", 0};

}  // namespace

InetBase::InetBase() : _timeStamp{}, _dest(kNoAddress), _source(kNoAddress) {
    cutil::gettime(_timeStamp.seconds, _timeStamp.microseconds);
}

InetBase::InetBase(const InetBase& other) = default;
InetBase& InetBase::operator=(const InetBase& other) = default;
InetBase::~InetBase() = default;

const _timeval_t& InetBase::GetTimeStamp() const {
    return _timeStamp;
}

void InetBase::SetTimeStamp(const _timeval_t& timeStamp) {
    _timeStamp = timeStamp;
}

const _ipaddr_t& InetBase::GetDest() const {
    return _dest;
}

void InetBase::SetDest(const _ipaddr_t& dest) {
    _dest = dest;
}

const _ipaddr_t& InetBase::GetSource() const {
    return _source;
}

void InetBase::SetSource(const _ipaddr_t& source) {
    _source = source;
}

}  // namespace zarip::inet
