// A viewer server written from the link's protocol text alone, and nothing more: it
// creates BB, MB and RB, serves one client at a time, answers on MB, and never touches the
// request board. A request counts as new when the board's type, ID or parameter block
// differ from the request it took last (a waiting client writes the same request again
// and again). Any server that follows the protocol may behave like this, so the client
// must not rely on anything our own pellucid-server does beyond it.
#pragma once

#include <fcntl.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <cstring>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "ipc/ipc.h"
#include "vol/serialize.h"

namespace quorix_test {

class ProtocolServer {
 public:
  // Serves the volume (a copy is kept; null: a viewer without volume).
  explicit ProtocolServer(const PcdRawVolumeData* volume = nullptr) {
    number = getpid() * 8 + 7;  // a slot of its own beside ServerProcess and FakePeer
    if (volume != nullptr) {
      volume_.resize(PCD_GetSerializedSizeOfRawVolumeData(volume));
      if (!volume_.empty()) PCD_SerializeRawVolumeData(volume, volume_.data());
      size_ = *volume->matrixSize;
    }
    bb_ = Create("PCD_IPC_BB", kPcdIpcBroadcastSize);
    mb_ = Create("PCD_IPC_MB", kPcdIpcBoardSize);
    rb_ = Create("PCD_IPC_RB", kPcdIpcBoardSize);
    if (bb_ == nullptr || mb_ == nullptr || rb_ == nullptr) return;
    SetWord(mb_, 0, kPcdIpcCleared);
    SetWord(mb_, kPcdIpcAcceptedOffset, kPcdIpcCleared);
    SetWord(bb_, 40, size_.x);
    SetWord(bb_, 44, size_.y);
    SetWord(bb_, 48, size_.z);
    SetWord(bb_, 52, size_.channels);
    for (size_t at : {108, 112, 116}) SetWord(bb_, at, 1);
    thread_ = std::thread([this] { Run(); });
  }
  ~ProtocolServer() {
    stop_ = true;
    if (thread_.joinable()) thread_.join();
    for (const char* base : {"PCD_IPC_BB", "PCD_IPC_MB", "PCD_IPC_RB", "PCD_IPC_DB"})
      shm_unlink(PCDipc_BoardName(base, number).c_str());
    if (bb_) munmap(bb_, kPcdIpcBroadcastSize);
    if (mb_) munmap(mb_, kPcdIpcBoardSize);
    if (rb_) munmap(rb_, kPcdIpcBoardSize);
  }
  ProtocolServer(const ProtocolServer&) = delete;
  ProtocolServer& operator=(const ProtocolServer&) = delete;

  bool ok() const { return thread_.joinable(); }
  // The requests it took, in order, and what it received.
  std::vector<int32_t> Taken() {
    std::lock_guard<std::mutex> lock(mutex_);
    return taken_;
  }
  std::vector<float> VoxelSizes() {
    std::lock_guard<std::mutex> lock(mutex_);
    return voxelSizes_;
  }
  std::vector<std::vector<uint8_t>> Received() {
    std::lock_guard<std::mutex> lock(mutex_);
    return received_;
  }
  // What the RB type word holds now (never cleared by this server).
  int32_t RequestWord() const { return Word(rb_, 0); }

  int number = 0;

 private:
  uint8_t* Create(const char* base, size_t size) {
    const std::string name = PCDipc_BoardName(base, number);
    shm_unlink(name.c_str());
    const int fd = shm_open(name.c_str(), O_RDWR | O_CREAT | O_EXCL, 0600);
    if (fd < 0) return nullptr;
    void* view = ftruncate(fd, static_cast<off_t>(size)) == 0
                     ? mmap(nullptr, size, PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0)
                     : MAP_FAILED;
    close(fd);
    return view == MAP_FAILED ? nullptr : static_cast<uint8_t*>(view);
  }
  static int32_t Word(const uint8_t* board, size_t at) {
    int32_t v;
    __atomic_load(reinterpret_cast<const int32_t*>(board + at), &v, __ATOMIC_ACQUIRE);
    return v;
  }
  static void SetWord(uint8_t* board, size_t at, int32_t v) {
    __atomic_store(reinterpret_cast<int32_t*>(board + at), &v, __ATOMIC_RELEASE);
  }
  void Accept(int32_t type) {
    SetWord(mb_, kPcdIpcAcceptedOffset, type);
    SetWord(mb_, 0, PCDipc_MESSAGE_TYPE_REQUEST_ACCEPTED);
  }
  std::vector<uint8_t> ReadDataBoard() {
    std::vector<uint8_t> bytes;
    const int fd = shm_open(PCDipc_BoardName("PCD_IPC_DB", number).c_str(), O_RDONLY, 0);
    if (fd < 0) return bytes;
    struct stat st {};
    if (fstat(fd, &st) == 0 && st.st_size > 0) {
      bytes.resize(static_cast<size_t>(st.st_size));
      if (pread(fd, bytes.data(), bytes.size(), 0) != st.st_size) bytes.clear();
    }
    close(fd);
    return bytes;
  }
  void PutDataBoard() {
    const std::string name = PCDipc_BoardName("PCD_IPC_DB", number);
    shm_unlink(name.c_str());
    const int fd = shm_open(name.c_str(), O_RDWR | O_CREAT | O_EXCL, 0600);
    if (fd < 0) return;
    if (ftruncate(fd, static_cast<off_t>(volume_.size())) == 0 && !volume_.empty())
      (void)!pwrite(fd, volume_.data(), volume_.size(), 0);
    close(fd);
  }

  void Serve(const PcdIpcRequest& r) {
    const bool connected = Word(bb_, 0) == 1;
    const bool ours = connected && std::strncmp(reinterpret_cast<const char*>(bb_ + kPcdIpcIdOffset), r.clientId,
                                                kPcdIpcIdLength) == 0;
    if (r.type == PCDipc_REQUEST_TYPE_CONNECTION) {
      if (connected) return;  // one client at a time
      std::memset(bb_ + kPcdIpcIdOffset, 0, kPcdIpcIdLength);
      std::memcpy(bb_ + kPcdIpcIdOffset, r.clientId, std::strlen(r.clientId));
      SetWord(bb_, 0, 1);
      return;
    }
    if (connected && !ours) return;  // not the connected client
    switch (r.type) {
      case PCDipc_REQUEST_TYPE_DISCONNECTION:
        SetWord(bb_, 0, 0);
        std::memset(bb_ + kPcdIpcIdOffset, 0, kPcdIpcIdLength);
        Accept(r.type);
        return;
      case PCDipc_REQUEST_TYPE_UPLOAD_VOLUMEDATA:
        Accept(r.type);
        PutDataBoard();
        SetWord(mb_, 0, PCDipc_MESSAGE_TYPE_DATA_UPLOAD_COMPLETED);
        return;
      case PCDipc_REQUEST_TYPE_CLOSE_DATABOARD:
        shm_unlink(PCDipc_BoardName("PCD_IPC_DB", number).c_str());
        Accept(r.type);
        return;
      case PCDipc_REQUEST_TYPE_LOAD_VOLUMEDATA:
      case PCDipc_REQUEST_TYPE_DOWNLOAD_VOLUMEDATA:
      case PCDipc_REQUEST_TYPE_DOWNLOAD_OBJECT_GROUP: {
        Accept(r.type);
        std::vector<uint8_t> bytes = ReadDataBoard();
        {
          std::lock_guard<std::mutex> lock(mutex_);
          received_.push_back(std::move(bytes));
        }
        SetWord(mb_, 0, PCDipc_MESSAGE_TYPE_DATA_DOWNLOAD_COMPLETED);
        return;
      }
      case PCDipc_REQUEST_TYPE_CREATE_OBJECT_GROUP:
        Accept(r.type);
        SetWord(mb_, kPcdIpcParameterOffset, nextGroup_++);
        SetWord(mb_, 0, PCDipc_MESSAGE_TYPE_DATA_OBJECT_GROUP_CREATED);
        return;
      case PCDipc_REQUEST_TYPE_SET_VOXEL_SIZE: {
        float size;
        std::memcpy(&size, &r.parameters[0], 4);
        {
          std::lock_guard<std::mutex> lock(mutex_);
          voxelSizes_.push_back(size);
        }
        Accept(r.type);
        return;
      }
      default:
        Accept(r.type);
        return;
    }
  }

  void Run() {
    std::vector<uint8_t> last;
    while (!stop_) {
      std::vector<uint8_t> board(kPcdIpcBoardSize);
      for (size_t at = 0; at < board.size(); at += 4) {
        const int32_t w = Word(rb_, at);
        std::memcpy(board.data() + at, &w, 4);
      }
      PcdIpcRequest r;
      if (Word(rb_, 0) > 0 && board != last && PCDipc_ParseRequestBoard(board.data(), &r) && r.type > 0) {
        last = board;
        {
          std::lock_guard<std::mutex> lock(mutex_);
          taken_.push_back(r.type);
        }
        Serve(r);
      }
      std::this_thread::sleep_for(std::chrono::microseconds(100));
    }
  }

  uint8_t* bb_ = nullptr;
  uint8_t* mb_ = nullptr;
  uint8_t* rb_ = nullptr;
  std::vector<uint8_t> volume_;
  PcdIntSize4D size_{0, 0, 0, 0};
  int32_t nextGroup_ = 1;
  std::atomic<bool> stop_{false};
  std::mutex mutex_;
  std::vector<int32_t> taken_;
  std::vector<float> voxelSizes_;
  std::vector<std::vector<uint8_t>> received_;
  std::thread thread_;
};

}  // namespace quorix_test
