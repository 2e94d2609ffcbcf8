// A scripted peer for the client side of the viewer link: it owns BB, MB and RB of a
// server number of its own, takes each request off RB on a thread of its own and lets the
// test decide what to write back, including boards that no correct server would write.
#pragma once

#include <fcntl.h>
#include <sys/mman.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <cstring>
#include <functional>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "ipc/ipc.h"

namespace quorix_test {

struct PeerBoard {
  std::string name;
  uint8_t* view = nullptr;
  size_t size = 0;

  void Create(const std::string& boardName, size_t bytes) {
    name = boardName;
    size = bytes;
    shm_unlink(name.c_str());
    const int fd = shm_open(name.c_str(), O_RDWR | O_CREAT | O_EXCL, 0600);
    if (fd < 0) return;
    if (ftruncate(fd, static_cast<off_t>(size)) == 0)
      view = static_cast<uint8_t*>(mmap(nullptr, size, PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0));
    close(fd);
  }
  void Remove() {
    if (view != nullptr) munmap(view, size);
    view = nullptr;
    shm_unlink(name.c_str());
  }
  int32_t Word(size_t at) const {
    int32_t v;
    __atomic_load(reinterpret_cast<const int32_t*>(view + at), &v, __ATOMIC_ACQUIRE);
    return v;
  }
  void SetWord(size_t at, int32_t v) { __atomic_store(reinterpret_cast<int32_t*>(view + at), &v, __ATOMIC_RELEASE); }
  void SetText(size_t at, const std::string& text, size_t room) {
    std::memset(view + at, 0, room);
    std::memcpy(view + at, text.data(), std::min(text.size(), room));
  }
};

// A board of any size and content at the data board's name: what a peer leaves there.
inline void PutDataBoard(int number, const std::vector<uint8_t>& bytes, size_t boardSize) {
  const std::string name = PCDipc_BoardName("PCD_IPC_DB", number);
  shm_unlink(name.c_str());
  const int fd = shm_open(name.c_str(), O_RDWR | O_CREAT | O_EXCL, 0600);
  if (fd < 0) return;
  if (ftruncate(fd, static_cast<off_t>(boardSize)) == 0 && !bytes.empty())
    (void)!pwrite(fd, bytes.data(), std::min(bytes.size(), boardSize), 0);
  close(fd);
}

class FakePeer {
 public:
  // What the peer does with one request taken off RB; the default serves like a server
  // that accepts everything.
  using Script = std::function<void(FakePeer&, const PcdIpcRequest&)>;

  explicit FakePeer(Script script = nullptr) : script_(std::move(script)) {
    number = getpid() * 8 + 6;  // the slot ServerProcess leaves to others; one peer at a time
    bb.Create(PCDipc_BoardName("PCD_IPC_BB", number), kPcdIpcBroadcastSize);
    mb.Create(PCDipc_BoardName("PCD_IPC_MB", number), kPcdIpcBoardSize);
    rb.Create(PCDipc_BoardName("PCD_IPC_RB", number), kPcdIpcBoardSize);
    mb.SetWord(0, kPcdIpcCleared);
    mb.SetWord(kPcdIpcAcceptedOffset, kPcdIpcCleared);
    thread_ = std::thread([this] { Run(); });
  }
  ~FakePeer() {
    stop_ = true;
    thread_.join();
    bb.Remove();
    mb.Remove();
    rb.Remove();
    shm_unlink(PCDipc_BoardName("PCD_IPC_DB", number).c_str());
  }
  FakePeer(const FakePeer&) = delete;
  FakePeer& operator=(const FakePeer&) = delete;

  // The request types taken so far, in order.
  std::vector<int32_t> Taken() {
    std::lock_guard<std::mutex> lock(mutex_);
    return taken_;
  }

  // What a plain server does: connect, disconnect, accept.
  void Serve(const PcdIpcRequest& r) {
    if (r.type == PCDipc_REQUEST_TYPE_CONNECTION) {
      bb.SetText(kPcdIpcIdOffset, r.clientId, kPcdIpcIdLength);
      bb.SetWord(0, 1);
      return;
    }
    if (r.type == PCDipc_REQUEST_TYPE_DISCONNECTION) {
      bb.SetWord(0, 0);
      bb.SetText(kPcdIpcIdOffset, "", kPcdIpcIdLength);
    }
    Accept(r.type);
  }
  void Accept(int32_t type) {
    mb.SetWord(kPcdIpcAcceptedOffset, type);
    mb.SetWord(0, PCDipc_MESSAGE_TYPE_REQUEST_ACCEPTED);
  }
  void Message(int32_t type) { mb.SetWord(0, type); }

  int number = 0;
  PeerBoard bb, mb, rb;
  // how long a request stays on RB before the peer takes it
  std::atomic<int> takeDelayUs{0};

 private:
  void Run() {
    while (!stop_) {
      if (rb.view != nullptr && rb.Word(kPcdIpcTypeOffset) > 0) {
        if (takeDelayUs > 0) std::this_thread::sleep_for(std::chrono::microseconds(takeDelayUs));
        uint8_t board[kPcdIpcBoardSize];
        for (size_t at = 0; at < kPcdIpcBoardSize; at += 4) {
          const int32_t w = rb.Word(at);
          std::memcpy(board + at, &w, 4);
        }
        PcdIpcRequest r;
        PCDipc_ParseRequestBoard(board, &r);
        if (r.type <= 0) continue;  // a client writing its next request: not yet complete
        rb.SetWord(kPcdIpcTypeOffset, 0);
        bool repeat = false;
        {
          std::lock_guard<std::mutex> lock(mutex_);
          // a waiting client writes its request again and again: count it once
          repeat = !taken_.empty() && taken_.back() == r.type;
          if (!repeat) taken_.push_back(r.type);
        }
        if (!repeat) {
          if (script_) script_(*this, r);
          else Serve(r);
        }
      }
      std::this_thread::sleep_for(std::chrono::microseconds(50));
    }
  }

  Script script_;
  std::atomic<bool> stop_{false};
  std::mutex mutex_;
  std::vector<int32_t> taken_;
  std::thread thread_;
};

}  // namespace quorix_test
