// SPDX-License-Identifier: MIT

// Streams over HTTP in both directions, without a bus: a live picture out, a file of any size in.
//
//   live-view PORT FOLDER
//
//   GET  /live                    a made-up live picture, in which a person walks to and fro; any browser
//   shows it PUT  /firmware?sha256=DIGEST  keeps the body as FOLDER/firmware.bin if its SHA-256 is the one
//   given GET  /...                     the files in FOLDER/public, whole or in parts
//
// With 0 as the port it takes a free one. It prints the address. It listens on 127.0.0.1 only, since it has
// no logins; web-gateway shows how to ask for them.

#include <sys/stat.h>

#include <zarip/core/StringUtil.h>
#include <zarip/inet/HttpServer.h>
#include <zarip/msgbus/StopSignal.h>
#include <zarip/osa/PathUtils.h>

#include <cstdio>
#include <string>

#include "common/FileHandler.h"
#include "common/FirmwareUpload.h"
#include "common/LiveView.h"
#include "common/LogToStdout.h"
#include "common/Scene.h"

namespace {

constexpr int kFramesOfWalk = 60;

/// Lets the person walk to and fro.
std::string TakePicture(Scene& scene, int& frames) {
    if (frames % kFramesOfWalk == 0) {
        const bool isBack = frames % (2 * kFramesOfWalk) != 0;
        scene.Walk({{isBack ? 0.9 : 0.1, 0.5}, {isBack ? 0.1 : 0.9, 0.5}});
    }
    ++frames;
    return scene.Take();
}

}  // namespace

int main(int argc, char** argv) {
    int port = 0;
    if (argc != 3 || !zarip::core::StringUtil::TryParse(argv[1], port) || port < 0 || port > 65'535) {
        std::fprintf(stderr, "usage: live-view PORT FOLDER\n");
        return 2;
    }
    try {
        const zarip::msgbus::StopSignal stop;
        LogToStdout("live-view");
        const std::string folder = argv[2];
        const std::string files = zarip::osa::PathUtils::Join(folder, "public");
        ::mkdir(files.c_str(), S_IRWXU);

        Scene scene;
        int frames = 0;
        FileHandler publicFiles(files);
        LiveView live([&] { return TakePicture(scene, frames); },
                      [](const zarip::inet::HttpRequest& /*head*/) { return [] { return true; }; });
        FirmwareUpload firmware(zarip::osa::PathUtils::Join(folder, "firmware.bin"),
                                [](const zarip::inet::HttpRequest& /*head*/) {});
        zarip::inet::HttpServer server("127.0.0.1", port);
        server.SetStandardResponses(true);
        server.AddHandler("/live", &live);
        server.AddHandler("/firmware", &firmware);
        server.AddHandler("*", &publicFiles);
        server.StartServerThread();
        std::printf("http://127.0.0.1:%u/\n", static_cast<unsigned int>(server.GetLocalPort()));
        std::fflush(stdout);
        stop.Wait();
        server.StopServerThread();
        return 0;
    } catch (const std::exception& e) {
        std::fprintf(stderr, "live-view: %s\n", e.what());
        return 1;
    }
}
