// A server for the soak: requests come over socket pairs, workers keep sessions of random life. It runs for the given
// number of seconds at a steady pace.
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <map>
#include <memory>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include <sys/socket.h>
#include <unistd.h>

namespace {

constexpr int kWorkers = 4;
constexpr unsigned kMostSessions = 2000; // of each worker
constexpr std::chrono::milliseconds kPause(2);

struct Request {
  unsigned session;
  unsigned bytes;
};

struct Session {
  std::unique_ptr<char[]> state;
  std::vector<std::string> history;
};

[[gnu::noinline]] void serve(std::map<unsigned, Session>& sessions, const Request& request) {
  Session& session = sessions[request.session];
  session.state = std::make_unique<char[]>(request.bytes);
  session.history.push_back(std::string(request.bytes % 500 + 20, 'h'));
  if (session.history.size() > 8 || request.bytes % 5 == 0) sessions.erase(request.session);
}

void work(int socket) {
  std::map<unsigned, Session> sessions;
  Request request;
  while (read(socket, &request, sizeof request) == sizeof request) {
    serve(sessions, request);
    const std::string answer = std::to_string(sessions.size()) + std::string(30, '.');
    if (write(socket, answer.data(), answer.size()) < 0) break;
  }
  close(socket);
}

} // namespace

int main(int argc, char** argv) {
  const auto end =
      std::chrono::steady_clock::now() + std::chrono::seconds(std::atoi(argc > 1 ? argv[1] : "1"));
  std::vector<std::thread> workers;
  int sockets[kWorkers][2];
  for (auto& pair : sockets) {
    if (socketpair(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0, pair) != 0) return 1;
    workers.emplace_back(work, pair[1]);
  }
  std::mt19937 random(1);
  unsigned long requests = 0;
  for (; std::chrono::steady_clock::now() < end; std::this_thread::sleep_for(kPause)) {
    for (const auto& pair : sockets) {
      for (int n = 0; n < 3; ++n, ++requests) {
        const Request request = {static_cast<unsigned>(random()) % kMostSessions,
                                 static_cast<unsigned>(random()) % (random() % 20 == 0 ? 60000 : 900) + 1};
        char answer[64];
        if (write(pair[0], &request, sizeof request) != sizeof request ||
            read(pair[0], answer, sizeof answer) <= 0)
          return 1;
      }
    }
  }
  for (const auto& pair : sockets) close(pair[0]);
  for (auto& worker : workers) worker.join();
  std::printf("%lu requests\n", requests);
  return 0;
}
