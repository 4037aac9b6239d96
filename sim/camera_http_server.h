// CameraHttpServer: serves the simulator's cameras over HTTP the way network
// cameras do, on Poco Net's HTTP server:
//   GET /camera/NAME/stream    MJPEG: multipart/x-mixed-replace, boundary
//                              "kelmframe", one JPEG per part
//   GET /camera/NAME/snapshot  the newest JPEG
//   GET /cameras               JSON list: name, width, height, fps, rendered, dropped
// Every image carries "X-Sim-Time" (the simulated time it shows, [s], six
// decimals) and "X-Frame" (its number). A stream sends each client the
// newest image whenever it is ready for one: a client that reads slowly
// misses images instead of having them queued.
//
// Threads: start() and stop() belong to the owner; each request is served
// on a thread of the server's pool (a stream for as long as it lasts).
#pragma once

#include <atomic>
#include <memory>
#include <string>
#include <vector>

#include "camera_rig.h"

namespace Poco {
class ThreadPool;
namespace Net {
class HTTPServer;
class HTTPServerRequest;
class HTTPServerResponse;
}  // namespace Net
}  // namespace Poco

namespace kelm {
namespace sim {

class CameraHttpServer {
public:
    // `port` 0 picks a free port when started.
    CameraHttpServer(std::string ip, unsigned short port, std::vector<std::shared_ptr<CameraChannel>> channels);
    ~CameraHttpServer();
    CameraHttpServer(const CameraHttpServer&) = delete;
    CameraHttpServer& operator=(const CameraHttpServer&) = delete;

    // Binds and serves; throws std::runtime_error when the address cannot be bound.
    void start();
    // Ends every stream and the server; harmless when stopped.
    void stop();
    unsigned short port() const { return port_; }

private:
    void serve(Poco::Net::HTTPServerRequest& request, Poco::Net::HTTPServerResponse& response);
    void serveList(Poco::Net::HTTPServerResponse& response);
    void serveSnapshot(const CameraChannel& channel, Poco::Net::HTTPServerResponse& response);
    void serveStream(const CameraChannel& channel, Poco::Net::HTTPServerResponse& response);
    std::shared_ptr<CameraChannel> find(const std::string& name) const;

    const std::string ip_;
    unsigned short port_;
    const std::vector<std::shared_ptr<CameraChannel>> channels_;
    std::atomic<bool> stopping_{false};
    std::unique_ptr<Poco::ThreadPool> pool_;
    std::unique_ptr<Poco::Net::HTTPServer> server_;
};

}  // namespace sim
}  // namespace kelm
