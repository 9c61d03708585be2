// The viewer page's files.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <string>

#include "server_program.h"
#include "signalling_texts.h"
#include "temporary_directory.h"
#include "websocket_client.h"

namespace support {
namespace {

using ::testing::AllOf;
using ::testing::EndsWith;
using ::testing::HasSubstr;
using ::testing::Not;
using ::testing::StartsWith;

class ServerPages : public ::testing::Test {
 protected:
  ServerPages() {
    directory.Write("outside.txt", "kept to itself");
    directory.Write("web/index.html", "<!doctype html><title>page</title>");
    directory.Write("web/viewer.mjs", "export {};");
    directory.Write("web/script.js", "0;");
    directory.Write("web/style.css", "p{}");
    directory.Write("web/icon.svg", "<svg/>");
    directory.Write("web/parts/part.mjs", "export {};");
    server.emplace(SIGNALCONN_SERVER_PROGRAM, std::vector<std::string>{"--web", (directory.Path() / "web").string()});
  }

  std::string Get(const std::string& path) const {
    return HttpExchange(server->Port(), "GET " + path + " HTTP/1.1\r\nHost: localhost\r\nConnection: close\r\n\r\n");
  }

  const TemporaryDirectory directory;
  std::optional<ServerProgram> server;
};

TEST_F(ServerPages, PageIsServedAtTheRoot) {
  for (const char* path : {"/", "/index.html", "/?camera=SN1"}) {
    EXPECT_THAT(Get(path), AllOf(StartsWith("HTTP/1.1 200 "), HasSubstr("\r\ncontent-type: text/html"),
                                 EndsWith("<title>page</title>")))
        << path;
  }
}

TEST_F(ServerPages, FilesCarryTheirTypes) {
  EXPECT_THAT(Get("/viewer.mjs"), HasSubstr("\r\ncontent-type: text/javascript\r\n"));
  EXPECT_THAT(Get("/parts/part.mjs"), HasSubstr("\r\ncontent-type: text/javascript\r\n"));
  EXPECT_THAT(Get("/script.js"), HasSubstr("\r\ncontent-type: text/javascript\r\n"));
  EXPECT_THAT(Get("/style.css"), HasSubstr("\r\ncontent-type: text/css\r\n"));
  EXPECT_THAT(Get("/icon.svg"), HasSubstr("\r\ncontent-type: image/svg+xml\r\n"));
}

TEST_F(ServerPages, AreFencedIn) {
  for (const char* path : {"/", "/viewer.mjs", "/nothing"}) {
    const std::string response = Get(path);
    EXPECT_THAT(response, HasSubstr("\r\ncontent-security-policy: default-src 'none'; script-src 'self'; ")) << path;
    EXPECT_THAT(response, HasSubstr("connect-src 'self'; ")) << path;
    EXPECT_THAT(response, HasSubstr("frame-ancestors 'none'\r\n")) << path;
    EXPECT_THAT(response, Not(HasSubstr("unsafe-inline"))) << path;
    EXPECT_THAT(response, HasSubstr("\r\nx-content-type-options: nosniff\r\n")) << path;
    EXPECT_THAT(response, HasSubstr("\r\nreferrer-policy: no-referrer\r\n")) << path;
  }
}

TEST_F(ServerPages, FileThatIsNotThereIsNotFound) { EXPECT_THAT(Get("/nothing.html"), StartsWith("HTTP/1.1 404 ")); }

TEST_F(ServerPages, NothingOutsideTheDirectoryIsServed) {
  for (const char* path : {"/../outside.txt", "/parts/../../outside.txt", "/%2e%2e/outside.txt", "/..%2foutside.txt",
                           "/%2e%2e%2foutside.txt", "//../outside.txt", "/./../outside.txt", "/..\\outside.txt",
                           "/....//outside.txt", "/%252e%252e/outside.txt", "/..%00/outside.txt", "../outside.txt"}) {
    EXPECT_THAT(Get(path), Not(HasSubstr("kept to itself"))) << path;
  }
  EXPECT_THAT(Get("/"), StartsWith("HTTP/1.1 200 "));
}

TEST_F(ServerPages, WebSocketSharesThePortAndTakesAnyPath) {
  for (const char* path : {"/", "/index.html", "/signal/ing?x=1", "/nothing"}) {
    WebSocketClient client(server->Port(), path);
    ASSERT_TRUE(client.IsOpen()) << path << client.Response();
    EXPECT_THAT(client.Response(), Not(HasSubstr("Sec-WebSocket-Protocol")));
    client.SendText(kHeartbeat);
    EXPECT_EQ(client.ReceiveText(), kHeartbeatReply) << path;
  }
}

TEST_F(ServerPages, OtherUpgradesAreRefused) {
  const std::string response =
      HttpExchange(server->Port(),
                   "GET / HTTP/1.1\r\nHost: localhost\r\nConnection: Upgrade, HTTP2-Settings\r\nUpgrade: h2c\r\n"
                   "HTTP2-Settings: AAMAAABkAAQAoAAAAAIAAAAA\r\n\r\n");
  EXPECT_THAT(response, Not(HasSubstr("101")));
}

TEST_F(ServerPages, WhatIsNoHttpHarmsNobody) {
  WebSocketClient client(server->Port());
  for (const char* request : {"\r\n\r\n", "hello\r\n\r\n", "GET\r\n\r\n", "GET / HTTP/9.9\r\n\r\n",
                              "\x16\x03\x01\x02\x00\x01\x00\x01\xfc\x03\x03\r\n\r\n"}) {
    HttpExchange(server->Port(), request);
  }
  HttpExchange(server->Port(), "GET /" + std::string(100000, 'x') + " HTTP/1.1\r\nHost: localhost\r\n\r\n");
  client.SendText(kHeartbeat);
  EXPECT_EQ(client.ReceiveText(), kHeartbeatReply);
}

}  // namespace
}  // namespace support
