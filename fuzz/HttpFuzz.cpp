// SPDX-License-Identifier: MIT

#include <sstream>
#include <string>

#include <zarip/inet/HttpDispatcher.h>
#include <zarip/inet/HttpRequest.h>
#include <zarip/inet/HttpResponse.h>
#include <zarip/inet/IHttpHandler.h>

#include "Messages.h"
#include "Targets.h"

namespace fuzz {

namespace {

using namespace zarip::inet;

class Handler : public IHttpHandler {
public:
    void HandleRequest(const HttpRequest& request, HttpResponse& response) override {
        response.SetCode(200);
        response.SetHeader("X-Path", request.GetPath());
        response.SetBody(request.GetBody(), request.GetBodyLength());
    }
};

/// The answer of a dispatcher is a response, and a 400 exactly when the request cannot be read.
void CheckAnswer(const std::string& input, bool isRead) {
    HttpDispatcher dispatcher;
    Handler handler;
    dispatcher.AddHandler("*", &handler);
    std::istringstream in(input);
    std::ostringstream out;
    dispatcher.HandleRequest(in, out);
    HttpResponse response;
    Check(Read(out.str(), response), "the answer can be read");
    Check((response.GetCode() == 400) == !isRead, "400 tells what cannot be read");
}

}  // namespace

FUZZ_TARGET(request) {
    HttpRequest request;
    const bool isRead = Read(input, request);
    CheckMessage(request);
    CheckAnswer(input, isRead);
    if (isRead) {
        CheckRequestAgain(request);
    }
}

FUZZ_TARGET(response) {
    HttpResponse response;
    const bool isRead = Read(input, response);
    CheckMessage(response);
    if (isRead) {
        CheckResponseAgain(response);
    }
}

}  // namespace fuzz
