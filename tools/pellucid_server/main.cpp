// pellucid-server: the viewer side of the shared memory link, headless. It creates the
// broadcast, message and request boards for its number, serves one client at a time,
// holds a volume, keeps what it receives and, with --save-dir, writes it to files; the
// object groups it holds are listed in DIR/objects.txt, one line a group
// ("group 2: 5 objects, 412 bytes"), rewritten whenever a group changes or goes.
//
//   pellucid-server [--number N] [--volume FILE] [--voxel-size MM] [--save-dir DIR]
//                   [--accept-pause MS] [--idle-pause MS]
//
// It polls its request board every 200 microseconds while a client is connected or was
// heard within the last second, and every --idle-pause milliseconds (15; 0.2 to 1000)
// after that.
#include <fcntl.h>
#include <sys/file.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <map>
#include <string>
#include <thread>
#include <vector>

#include "io/raw_volume_file.h"
#include "ipc/ipc.h"
#include "vol/serialize.h"

namespace {

std::atomic<bool> g_stop{false};
void OnSignal(int) { g_stop = true; }

// A board this server owns: created at start (replacing a stale one), mapped for good.
struct OwnBoard {
  std::string name;
  uint8_t* view = nullptr;
  size_t size = 0;

  bool Create(const std::string& boardName, size_t bytes) {
    name = boardName;
    size = bytes;
    shm_unlink(name.c_str());  // a board left by a crashed server of this number
    const int fd = shm_open(name.c_str(), O_RDWR | O_CREAT | O_EXCL, 0600);
    if (fd < 0) return false;
    const bool sized = ftruncate(fd, static_cast<off_t>(size)) == 0;
    void* v = sized ? mmap(nullptr, size, PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0) : MAP_FAILED;
    close(fd);
    if (v == MAP_FAILED) return false;
    view = static_cast<uint8_t*>(v);
    return true;
  }
  void Remove() {
    if (view != nullptr) munmap(view, size);
    view = nullptr;
    if (!name.empty()) shm_unlink(name.c_str());
  }
  // The client maps, writes and unmaps concurrently: words are copied whole.
  void Snapshot(uint8_t* to) const {
    for (size_t at = 0; at + 4 <= size; at += 4) {
      const int32_t w = Word(at);
      std::memcpy(to + at, &w, 4);
    }
  }
  int32_t Word(size_t offset) const {
    int32_t v;
    __atomic_load(reinterpret_cast<const int32_t*>(view + offset), &v, __ATOMIC_ACQUIRE);
    return v;
  }
  void SetWord(size_t offset, int32_t v) {
    __atomic_store(reinterpret_cast<int32_t*>(view + offset), &v, __ATOMIC_RELEASE);
  }
  // Clears a word only while it still holds what was read: a client that wrote its next
  // request between our read and our clear would otherwise lose it.
  bool TakeWord(size_t offset, int32_t expected) {
    return __atomic_compare_exchange_n(reinterpret_cast<int32_t*>(view + offset), &expected, 0, false,
                                       __ATOMIC_ACQ_REL, __ATOMIC_ACQUIRE);
  }
  void SetFloat(size_t offset, float f) {
    int32_t bits;
    std::memcpy(&bits, &f, 4);
    SetWord(offset, bits);
  }
  std::string Text(size_t offset, size_t room) const {
    std::string text;
    for (size_t i = 0; i < room; ++i) {
      const char c = static_cast<char>(view[offset + i]);
      if (c == '\0') break;
      text.push_back(c);
    }
    return text;
  }
  // A text that fills its room has no terminator there (a 32-character client ID on BB).
  void SetText(size_t offset, const std::string& text, size_t room) {
    std::memset(view + offset, 0, room);
    std::memcpy(view + offset, text.data(), std::min(text.size(), room));
  }
};

struct Options {
  int number = 0;
  std::string volumeFile;
  float voxelSize = 0.0f;
  std::string saveDir;
  int acceptPauseMs = 20;
  int idlePauseUs = 15000;
};

struct Server {
  Options options;
  OwnBoard bb, mb, rb;
  std::string dbName;
  bool dbOwned = false;
  PcdRawVolumeData* volume = nullptr;
  int32_t nextGroupId = 1;
  std::map<int32_t, std::vector<uint8_t>> groups;  // what each object group holds now
  int saved = 0;
  // the request last acted on, so that the client's rewrites while it waits are not
  // taken for new requests
  int32_t lastType = 0;
  std::vector<int32_t> lastParameters;
  // the connected client's process (0: it did not say), looked at now and then
  int32_t clientPid = 0;
  std::chrono::steady_clock::time_point lastActivity = std::chrono::steady_clock::now();
  std::chrono::steady_clock::time_point lastPidCheck = lastActivity;

  void Log(const char* format, int32_t a = 0, int32_t b = 0) {
    std::fprintf(stderr, "pellucid-server(%04d): ", options.number);
    std::fprintf(stderr, format, a, b);
    std::fputc('\n', stderr);
  }

  void PublishVolume() {
    const PcdIntSize4D s = volume ? *volume->matrixSize : PcdIntSize4D{0, 0, 0, 0};
    bb.SetWord(40, s.x);
    bb.SetWord(44, s.y);
    bb.SetWord(48, s.z);
    bb.SetWord(52, s.channels);
  }

  void Message(int32_t type) { mb.SetWord(kPcdIpcTypeOffset, type); }
  void Accept(int32_t type) {
    mb.SetWord(kPcdIpcAcceptedOffset, type);
    Message(PCDipc_MESSAGE_TYPE_REQUEST_ACCEPTED);
  }
  // Leaves the acceptance on MB until the client has seen it, before a later message
  // replaces it: a client waiting for it writes its request again and again until it
  // sees it, so the acceptance stays until RB has stayed quiet for the accept pause (at
  // most two seconds). On a busy machine a fixed pause was missed, and the client then
  // waited out its whole retry limit.
  void Pause() {
    using namespace std::chrono;
    const auto start = steady_clock::now();
    auto quietSince = start;
    const auto quiet = milliseconds(options.acceptPauseMs);
    for (auto now = start; now - quietSince < quiet && now - start < seconds(2); now = steady_clock::now()) {
      if (rb.TakeWord(kPcdIpcTypeOffset, lastType)) quietSince = now;
      std::this_thread::sleep_for(microseconds(200));
    }
  }

  void CloseOwnDataBoard() {
    if (dbOwned) shm_unlink(dbName.c_str());
    dbOwned = false;
  }

  // A board of size 0: the serialized form of no volume, the answer when there is none.
  bool PutEmptyDataBoard() {
    CloseOwnDataBoard();
    shm_unlink(dbName.c_str());
    const int fd = shm_open(dbName.c_str(), O_RDWR | O_CREAT | O_EXCL, 0600);
    if (fd < 0) return false;
    close(fd);
    dbOwned = true;
    return true;
  }

  bool PutVolumeOnDataBoard() {
    const size_t size = PCD_GetSerializedSizeOfRawVolumeData(volume);
    if (size == 0) return false;
    CloseOwnDataBoard();
    shm_unlink(dbName.c_str());
    const int fd = shm_open(dbName.c_str(), O_RDWR | O_CREAT | O_EXCL, 0600);
    if (fd < 0) return false;
    bool ok = ftruncate(fd, static_cast<off_t>(size)) == 0;
    void* v = ok ? mmap(nullptr, size, PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0) : MAP_FAILED;
    close(fd);
    dbOwned = true;
    if (v == MAP_FAILED) return false;
    ok = PCD_SerializeRawVolumeData(volume, static_cast<uint8_t*>(v)) == 0;
    munmap(v, size);
    return ok;
  }

  void Save(const char* kind, const PcdRawVolumeData* v, const std::vector<uint8_t>* bytes) {
    if (options.saveDir.empty()) return;
    char name[64];
    std::snprintf(name, sizeof name, "/%03d_%s.%s", ++saved, kind, v ? "raw" : "bin");
    const std::string path = options.saveDir + name;
    if (v != nullptr) {
      WriteRawVolumeFile(v, path.c_str());
    } else if (FILE* f = std::fopen(path.c_str(), "wb")) {
      std::fwrite(bytes->data(), 1, bytes->size(), f);
      std::fclose(f);
    }
  }

  void ListGroups() {
    if (options.saveDir.empty()) return;
    FILE* f = std::fopen((options.saveDir + "/objects.txt").c_str(), "w");
    if (f == nullptr) return;
    for (const auto& [id, bytes] : groups) {
      int32_t count = 0;
      if (bytes.size() >= 4) std::memcpy(&count, bytes.data(), 4);
      std::fprintf(f, "group %d: %d objects, %d bytes\n", id, count, static_cast<int>(bytes.size()));
    }
    std::fclose(f);
  }

  void Serve(int32_t type, const std::vector<int32_t>& p) {
    switch (type) {
      case PCDipc_REQUEST_TYPE_UPLOAD_VOLUMEDATA:
        Accept(type);
        Pause();
        // without a volume the answer is an empty board: the client must not wait for ever
        if (volume != nullptr ? PutVolumeOnDataBoard() : PutEmptyDataBoard())
          Message(PCDipc_MESSAGE_TYPE_DATA_UPLOAD_COMPLETED);
        else
          Log("cannot create the data board");
        if (volume == nullptr) Log("no volume: sent an empty data board");
        return;
      case PCDipc_REQUEST_TYPE_LOAD_VOLUMEDATA:
      case PCDipc_REQUEST_TYPE_DOWNLOAD_VOLUMEDATA: {
        Accept(type);
        Pause();
        PcdRawVolumeData* got =
            PCDipc_ReadVolumeFromBoard(dbName.c_str(), type == PCDipc_REQUEST_TYPE_DOWNLOAD_VOLUMEDATA, nullptr);
        if (got == nullptr) {
          Log("refused the data board of request %d", type);
          return;
        }
        if (type == PCDipc_REQUEST_TYPE_LOAD_VOLUMEDATA || volume == nullptr ||
            volume->matrixSize->x != got->matrixSize->x || volume->matrixSize->y != got->matrixSize->y ||
            volume->matrixSize->z != got->matrixSize->z) {
          PCD_DeleteRawVolumeData(volume);
          volume = got;
        } else {
          PCD_AddNewChannelOfRawVolumeData(volume, got, 0);
          Save("channel", got, nullptr);
          PCD_DeleteRawVolumeData(got);
        }
        if (type == PCDipc_REQUEST_TYPE_LOAD_VOLUMEDATA) Save("volume", volume, nullptr);
        PublishVolume();
        Log("volume now has %d channels", volume->matrixSize->channels);
        Message(PCDipc_MESSAGE_TYPE_DATA_DOWNLOAD_COMPLETED);
        return;
      }
      case PCDipc_REQUEST_TYPE_CLOSE_DATABOARD:
        CloseOwnDataBoard();
        Accept(type);
        return;
      case PCDipc_REQUEST_TYPE_CREATE_OBJECT_GROUP:
        Accept(type);
        Pause();
        mb.SetWord(kPcdIpcParameterOffset, nextGroupId);
        Log("object group %d created", nextGroupId++);
        Message(PCDipc_MESSAGE_TYPE_DATA_OBJECT_GROUP_CREATED);
        return;
      case PCDipc_REQUEST_TYPE_DOWNLOAD_OBJECT_GROUP: {
        Accept(type);
        Pause();
        std::vector<uint8_t> bytes;
        if (!PCDipc_ReadObjectGroupFromBoard(dbName.c_str(), &bytes)) {
          Log("refused the data board of object group %d", p[0]);
          return;
        }
        Log("object group %d: %d bytes", p[0], static_cast<int32_t>(bytes.size()));
        Save("group", nullptr, &bytes);
        groups[p[0]] = bytes;
        ListGroups();
        Message(PCDipc_MESSAGE_TYPE_DATA_DOWNLOAD_COMPLETED);
        return;
      }
      case PCDipc_REQUEST_TYPE_REMOVE_OBJECT:
        Log("object %d removed", p[0]);
        groups.erase(p[0]);
        ListGroups();
        Accept(type);
        return;
      case PCDipc_REQUEST_TYPE_SET_VOXEL_SIZE: {
        float size;
        std::memcpy(&size, &p[0], 4);
        bb.SetFloat(144, size);
        std::fprintf(stderr, "pellucid-server(%04d): voxel size set to %.9g mm\n", options.number,
                     static_cast<double>(size));
        Accept(type);
        return;
      }
      case PCDipc_REQUEST_TYPE_SET_POSITION:
        for (int i = 0; i < 3; ++i) bb.SetWord(72 + 4 * static_cast<size_t>(i), p[static_cast<size_t>(i)]);
        Accept(type);
        return;
      case PCDipc_REQUEST_TYPE_SET_REGION:
        for (int i = 0; i < 6; ++i) bb.SetWord(96 + 4 * static_cast<size_t>(i), p[static_cast<size_t>(i)]);
        Accept(type);
        return;
      default:  // lock, unlock, transfer end and anything unknown: taken and answered
        Accept(type);
        return;
    }
  }

  void FreeLink(const char* why) {
    bb.SetWord(0, 0);
    bb.SetText(kPcdIpcIdOffset, "", kPcdIpcIdLength);
    CloseOwnDataBoard();
    lastType = 0;
    clientPid = 0;
    Log(why);
  }

  // A client that died while connected would hold the link for ever: once a second its
  // process is looked for, and the link is freed when it is gone.
  void CheckClientAlive() {
    const auto now = std::chrono::steady_clock::now();
    if (bb.Word(0) != 1 || clientPid <= 0 || now - lastPidCheck < std::chrono::seconds(1)) return;
    lastPidCheck = now;
    if (kill(clientPid, 0) != 0 && errno == ESRCH) FreeLink("the connected client is gone: link freed");
  }

  // Returns true when a request was on RB (taken or refused).
  bool Poll() {
    CheckClientAlive();
    if (rb.Word(kPcdIpcTypeOffset) <= 0) return false;
    uint8_t board[kPcdIpcBoardSize];
    rb.Snapshot(board);
    PcdIpcRequest r;
    const bool validId = PCDipc_ParseRequestBoard(board, &r);
    const int32_t type = r.type;
    const std::string id = r.clientId;
    const bool connected = bb.Word(0) == 1;
    const std::string client = bb.Text(kPcdIpcIdOffset, kPcdIpcIdLength);
    lastActivity = std::chrono::steady_clock::now();
    if (type <= 0) return false;  // taken back between the two reads
    if (!validId) {
      rb.TakeWord(kPcdIpcTypeOffset, type);
      return true;
    }
    if (type == PCDipc_REQUEST_TYPE_CONNECTION) {
      rb.TakeWord(kPcdIpcTypeOffset, type);
      if (connected) return true;  // one client at a time
      bb.SetText(kPcdIpcIdOffset, id, kPcdIpcIdLength);
      bb.SetWord(0, 1);
      lastType = 0;
      clientPid = r.processId;
      lastPidCheck = lastActivity;
      Log("connected");
      return true;
    }
    // only the connected client is served; anyone else's request is taken off the board
    // unanswered, a disconnection too: its acceptance would end the connected client's wait
    if (!connected || id != client) {
      rb.TakeWord(kPcdIpcTypeOffset, type);
      if (type != PCDipc_REQUEST_TYPE_DISCONNECTION && connected) Log("request %d of another client refused", type);
      // a free server serves a client that did not connect first, as it always did
      if (type != PCDipc_REQUEST_TYPE_DISCONNECTION && !connected) ServeOnce(type, r);
      return true;
    }
    if (type == PCDipc_REQUEST_TYPE_DISCONNECTION) {
      FreeLink("disconnected");
      Accept(type);
      rb.TakeWord(kPcdIpcTypeOffset, type);
      return true;
    }
    ServeOnce(type, r);
    return true;
  }

  void ServeOnce(int32_t type, const PcdIpcRequest& r) {
    const std::vector<int32_t> p(r.parameters, r.parameters + kPcdIpcParameterWords);
    rb.TakeWord(kPcdIpcTypeOffset, type);
    if (type == lastType && p == lastParameters && mb.Word(kPcdIpcAcceptedOffset) == type)
      return;  // the waiting client wrote it again
    lastType = type;
    lastParameters = p;
    Log("request %d", type);
    Serve(type, p);
  }
};

// Polls fast while a client is connected or asked something within the last second;
// after that it backs off to a few dozen polls a second so that an idle server costs
// next to nothing. The first request after a quiet spell waits at most one long pause.
std::chrono::microseconds PollPause(const Server& server) {
  using namespace std::chrono;
  const auto quiet = steady_clock::now() - server.lastActivity;
  if (server.bb.Word(0) == 1 || quiet < seconds(1)) return microseconds(200);
  return microseconds(server.options.idlePauseUs);
}

bool ParseOptions(int argc, char** argv, Options* o) {
  for (int i = 1; i < argc; ++i) {
    const std::string a = argv[i];
    const bool hasValue = i + 1 < argc;
    if (a == "--help" || a == "-h") return false;
    if (!hasValue) return false;
    const char* v = argv[++i];
    if (a == "--number") o->number = std::atoi(v);
    else if (a == "--volume") o->volumeFile = v;
    else if (a == "--voxel-size") o->voxelSize = static_cast<float>(std::atof(v));
    else if (a == "--save-dir") o->saveDir = v;
    else if (a == "--accept-pause") o->acceptPauseMs = std::atoi(v);
    else if (a == "--idle-pause") o->idlePauseUs = static_cast<int>(std::clamp(std::atof(v), 0.0, 1001.0) * 1000.0);
    else return false;
  }
  return o->number >= 0 && o->number <= 99999999 && o->acceptPauseMs >= 0 && o->idlePauseUs >= 200 &&
         o->idlePauseUs <= 1000000;
}

// Holds the server number for as long as this server lives: an exclusive lock on a small
// shared memory object of that number. The kernel drops the lock when the process ends,
// however it ends, so boards left behind by a dead server are taken over and those of a
// live one are not.
class NumberLock {
 public:
  explicit NumberLock(int number) : name_(PCDipc_BoardName("PCD_IPC_SV", number)) {}
  ~NumberLock() {
    if (fd_ < 0) return;
    shm_unlink(name_.c_str());
    close(fd_);
  }
  NumberLock(const NumberLock&) = delete;
  NumberLock& operator=(const NumberLock&) = delete;
  // false when a live server holds the number
  bool Take() {
    fd_ = shm_open(name_.c_str(), O_RDWR | O_CREAT, 0600);
    if (fd_ < 0) return false;
    if (flock(fd_, LOCK_EX | LOCK_NB) == 0) return true;
    close(fd_);
    fd_ = -1;
    return false;
  }

 private:
  std::string name_;
  int fd_ = -1;
};

}  // namespace

int main(int argc, char** argv) {
  Server server;
  if (!ParseOptions(argc, argv, &server.options)) {
    std::fputs("Usage: pellucid-server [--number N] [--volume FILE] [--voxel-size MM] [--save-dir DIR]\n"
               "                       [--accept-pause MS] [--idle-pause MS]\n"
               "Serves the Quorix.II viewer link on the shared memory boards of number N (0..99999999).\n",
               stderr);
    return 2;
  }
  const Options& o = server.options;
  if (!o.volumeFile.empty()) {
    std::string info;
    server.volume = ReadRawVolumeFile(o.volumeFile.c_str(), &info);
    if (server.volume == nullptr) {
      std::fprintf(stderr, "Err: cannot read the volume %s\n", o.volumeFile.c_str());
      return 1;
    }
  }
  NumberLock lock(o.number);
  if (!lock.Take()) {
    std::fprintf(stderr, "Err: server number %d is in use by a running pellucid-server\n", o.number);
    PCD_DeleteRawVolumeData(server.volume);
    return 1;
  }
  server.dbName = PCDipc_BoardName("PCD_IPC_DB", o.number);
  if (!server.bb.Create(PCDipc_BoardName("PCD_IPC_BB", o.number), kPcdIpcBroadcastSize) ||
      !server.mb.Create(PCDipc_BoardName("PCD_IPC_MB", o.number), kPcdIpcBoardSize) ||
      !server.rb.Create(PCDipc_BoardName("PCD_IPC_RB", o.number), kPcdIpcBoardSize)) {
    std::fprintf(stderr, "Err: cannot create the boards of number %d\n", o.number);
    server.bb.Remove();
    server.mb.Remove();
    server.rb.Remove();
    return 1;
  }
  server.bb.SetWord(0, 0);
  server.mb.SetWord(0, kPcdIpcCleared);
  server.mb.SetWord(kPcdIpcAcceptedOffset, kPcdIpcCleared);
  server.bb.SetWord(108, 1);
  server.bb.SetWord(112, 1);
  server.bb.SetWord(116, 1);
  server.bb.SetFloat(144, o.voxelSize);
  server.PublishVolume();
  std::signal(SIGINT, OnSignal);
  std::signal(SIGTERM, OnSignal);
  server.Log("serving");
  std::fflush(stderr);
  while (!g_stop) {
    server.Poll();
    std::this_thread::sleep_for(PollPause(server));
  }
  server.CloseOwnDataBoard();
  server.bb.Remove();
  server.mb.Remove();
  server.rb.Remove();
  PCD_DeleteRawVolumeData(server.volume);
  server.Log("stopped");
  return 0;
}
