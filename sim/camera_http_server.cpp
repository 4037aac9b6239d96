#include "camera_http_server.h"

#include <Poco/Exception.h>
#include <Poco/Net/HTTPRequestHandler.h>
#include <Poco/Net/HTTPRequestHandlerFactory.h>
#include <Poco/Net/HTTPServer.h>
#include <Poco/Net/HTTPServerParams.h>
#include <Poco/Net/HTTPServerRequest.h>
#include <Poco/Net/HTTPServerResponse.h>
#include <Poco/Net/ServerSocket.h>
#include <Poco/Net/SocketAddress.h>
#include <Poco/ThreadPool.h>
#include <Poco/URI.h>
#include <json/json.h>

#include <csignal>
#include <cstdio>
#include <functional>
#include <ostream>
#include <stdexcept>

#include "log_manager.h"

namespace kelm {
namespace sim {
namespace {

constexpr const char* kBoundary = "kelmframe";
constexpr int kMaxClients = 16;  // streams and requests served at once
// How long a stream waits for an image before it looks whether the server
// is stopping, and how long a snapshot waits for a camera's first image.
constexpr std::chrono::milliseconds kStreamPoll(200);
constexpr std::chrono::milliseconds kFirstImageWait(3000);
const Poco::Timespan kRequestTimeout(5, 0);

using ServeFunction = std::function<void(Poco::Net::HTTPServerRequest&, Poco::Net::HTTPServerResponse&)>;

class Handler : public Poco::Net::HTTPRequestHandler {
public:
    explicit Handler(const ServeFunction& serve) : serve_(serve) {}
    void handleRequest(Poco::Net::HTTPServerRequest& request, Poco::Net::HTTPServerResponse& response) override {
        serve_(request, response);
    }

private:
    const ServeFunction& serve_;
};

class HandlerFactory : public Poco::Net::HTTPRequestHandlerFactory {
public:
    explicit HandlerFactory(ServeFunction serve) : serve_(std::move(serve)) {}
    Poco::Net::HTTPRequestHandler* createRequestHandler(const Poco::Net::HTTPServerRequest&) override {
        return new Handler(serve_);
    }

private:
    ServeFunction serve_;
};

void sendText(Poco::Net::HTTPServerResponse& response, Poco::Net::HTTPResponse::HTTPStatus status,
              const std::string& text) {
    response.setStatusAndReason(status);
    response.setContentType("text/plain");
    response.sendBuffer(text.data(), text.size());
}

// "X-Sim-Time" and "X-Frame" of one image.
std::string simTime(const CameraFrame& frame) {
    char text[32];
    std::snprintf(text, sizeof text, "%.6f", frame.sim_time);
    return text;
}

}  // namespace

CameraHttpServer::CameraHttpServer(std::string ip, unsigned short port,
                                   std::vector<std::shared_ptr<CameraChannel>> channels)
    : ip_(std::move(ip)), port_(port), channels_(std::move(channels)) {}

CameraHttpServer::~CameraHttpServer() { stop(); }

void CameraHttpServer::start() {
    if (server_) return;
    // A client that leaves in the middle of an image must not end the
    // process: the write fails with EPIPE instead, and its request ends.
    std::signal(SIGPIPE, SIG_IGN);
    Poco::Net::ServerSocket socket;
    try {
        socket.bind(Poco::Net::SocketAddress(ip_, port_), true, false);
        socket.listen();
    } catch (const Poco::Exception& error) {
        throw std::runtime_error("cameras: cannot listen on " + ip_ + ":" + std::to_string(port_) + ": " +
                                 error.displayText());
    }
    port_ = socket.address().port();
    auto params = new Poco::Net::HTTPServerParams;
    params->setMaxThreads(kMaxClients);
    params->setMaxQueued(kMaxClients);
    params->setKeepAlive(false);
    params->setTimeout(kRequestTimeout);
    stopping_ = false;
    pool_ = std::make_unique<Poco::ThreadPool>(1, kMaxClients + 1);
    auto factory = new HandlerFactory([this](Poco::Net::HTTPServerRequest& request,
                                             Poco::Net::HTTPServerResponse& response) { serve(request, response); });
    server_ = std::make_unique<Poco::Net::HTTPServer>(factory, *pool_, socket, params);
    server_->start();
}

void CameraHttpServer::stop() {
    if (!server_) return;
    stopping_ = true;
    server_->stopAll(true);
    // Poco's connection objects unregister from the server as they are
    // destroyed on the pool's threads: the server goes only after them.
    pool_->joinAll();
    server_.reset();
    pool_.reset();
}

void CameraHttpServer::serve(Poco::Net::HTTPServerRequest& request, Poco::Net::HTTPServerResponse& response) {
    try {
        if (request.getMethod() != Poco::Net::HTTPRequest::HTTP_GET) {
            sendText(response, Poco::Net::HTTPResponse::HTTP_METHOD_NOT_ALLOWED, "only GET\n");
            return;
        }
        std::vector<std::string> path;
        Poco::URI(request.getURI()).getPathSegments(path);
        if (path.size() == 1 && path[0] == "cameras") return serveList(response);
        const std::shared_ptr<CameraChannel> channel =
            path.size() == 3 && path[0] == "camera" ? find(path[1]) : nullptr;
        if (channel && path[2] == "stream") return serveStream(*channel, response);
        if (channel && path[2] == "snapshot") return serveSnapshot(*channel, response);
        sendText(response, Poco::Net::HTTPResponse::HTTP_NOT_FOUND,
                 "no such resource: GET /cameras, /camera/NAME/stream or /camera/NAME/snapshot\n");
    } catch (const std::exception& error) {
        // Mostly a client that went away in the middle of an answer.
        KELM_LOG(LOG_ERROR, "cameras: request %s ended: %s", request.getURI().c_str(), error.what());
    }
}

void CameraHttpServer::serveList(Poco::Net::HTTPServerResponse& response) {
    Json::Value list(Json::arrayValue);
    for (const auto& channel : channels_) {
        const CameraRequest& request = channel->request();
        const CameraCounters counters = channel->counters();
        Json::Value camera(Json::objectValue);
        camera["name"] = request.name;
        camera["width"] = request.width;
        camera["height"] = request.height;
        camera["fps"] = request.fps;
        camera["rendered"] = static_cast<Json::UInt64>(counters.rendered);
        camera["dropped"] = static_cast<Json::UInt64>(counters.dropped);
        list.append(camera);
    }
    Json::StreamWriterBuilder writer;
    writer["indentation"] = "";
    const std::string text = Json::writeString(writer, list) + "\n";
    response.setContentType("application/json");
    response.sendBuffer(text.data(), text.size());
}

void CameraHttpServer::serveSnapshot(const CameraChannel& channel, Poco::Net::HTTPServerResponse& response) {
    std::shared_ptr<const CameraFrame> frame = channel.latest();
    if (!frame) frame = channel.waitNewer(0, kFirstImageWait);
    if (!frame) {
        sendText(response, Poco::Net::HTTPResponse::HTTP_SERVICE_UNAVAILABLE, "no image yet\n");
        return;
    }
    response.setContentType("image/jpeg");
    response.set("Cache-Control", "no-cache");
    response.set("X-Sim-Time", simTime(*frame));
    response.set("X-Frame", std::to_string(frame->number));
    response.sendBuffer(frame->jpeg.data(), frame->jpeg.size());
}

// Until the client leaves or the server stops: each image that is newer
// than the last one sent, as soon as the client has taken that one.
void CameraHttpServer::serveStream(const CameraChannel& channel, Poco::Net::HTTPServerResponse& response) {
    response.setContentType(std::string("multipart/x-mixed-replace; boundary=") + kBoundary);
    response.set("Cache-Control", "no-cache");
    response.setChunkedTransferEncoding(false);
    response.setKeepAlive(false);
    std::ostream& out = response.send();
    std::uint64_t last = 0;
    while (out.good() && !stopping_ && !channel.closed()) {
        const std::shared_ptr<const CameraFrame> frame = channel.waitNewer(last, kStreamPoll);
        if (!frame) continue;
        out << "--" << kBoundary << "\r\nContent-Type: image/jpeg\r\nContent-Length: " << frame->jpeg.size()
            << "\r\nX-Sim-Time: " << simTime(*frame) << "\r\nX-Frame: " << frame->number << "\r\n\r\n";
        out.write(frame->jpeg.data(), static_cast<std::streamsize>(frame->jpeg.size()));
        out << "\r\n";
        out.flush();
        last = frame->number;
    }
}

std::shared_ptr<CameraChannel> CameraHttpServer::find(const std::string& name) const {
    for (const auto& channel : channels_)
        if (channel->request().name == name) return channel;
    return nullptr;
}

}  // namespace sim
}  // namespace kelm
