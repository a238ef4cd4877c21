// A client of the reputation service in plain C with nothing but the C library, written from docs/wire.md.
// Road tests send it to the daemon: signed or not, patient or rude.
//
//   ask SOCKET FILE                asks about the file
//   churn SOCKET FILE STAGE COUNT  comes COUNT times, and vanishes each time at the STAGE: connected,
//                                  welcomed, halfway (of its request), asked, answering (of the reply)
//   inherit SOCKET FILE PROGRAM    is admitted, then lets PROGRAM ask on its connection
//   become SOCKET FILE PROGRAM     asks without waiting for the welcome, then turns into PROGRAM to ask on
//   ask-on FD FILE                 asks on a connection whose handshake is done
//
// Prints what came, as lines "key=value". Exit status: 0 a reply came, 3 the service refused or went, 1
// anything else.
#include <err.h>
#include <errno.h>
#include <fcntl.h>
#include <limits.h>
#include <stdbool.h>
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

enum { kAnswered = 0, kFailed = 1, kTurnedAway = 3 };
enum { kWelcome = 1, kHello = 2, kRequest = 4, kReply = 5, kUnanswered = 6 };
enum { kWireVersion = 1, kHeaderSize = 16, kNonceSize = 16, kMaxBody = 4 << 20, kPatience = 120 };
enum { kRequestIdentifier = 1 };
enum Stage { kConnected, kWelcomed, kHalfway, kAsked, kAnswering, kStages };
static const char* const kStageNames[kStages] = {"connected", "welcomed", "halfway", "asked", "answering"};

static _Noreturn void turned_away(void) {
  puts("end=closed");
  exit(kTurnedAway);
}

// ---- CBOR, as far as a flat message needs it

struct Bytes {
  size_t size;
  uint8_t at[2 * PATH_MAX];
};

// It need not be the shortest form.
static void put_head(struct Bytes* bytes, unsigned major, uint64_t value) {
  const bool is_short = value < 24;
  bytes->at[bytes->size++] = (uint8_t)(major << 5 | (is_short ? value : 27));
  for (unsigned i = is_short ? 0 : 8; i-- > 0;) bytes->at[bytes->size++] = (uint8_t)(value >> 8 * i);
}

static void put_text(struct Bytes* bytes, const char* text) {
  const size_t length = strlen(text);
  if (length > PATH_MAX) errx(kFailed, "text too long");
  put_head(bytes, 3, length);
  memcpy(bytes->at + bytes->size, text, length);
  bytes->size += length;
}

struct Item {
  unsigned major;
  uint64_t value;  // of a number; the length of a text
  const uint8_t* text;
};

// The next item; of a tagged one the item inside.
static struct Item take(const uint8_t** at, const uint8_t* end) {
  const unsigned info = *at == end ? 31 : **at & 31;
  if (info > 27 || end - *at <= (info > 23 ? 1 << (info - 24) : 0)) errx(kFailed, "a broken reply");
  struct Item item = {.major = **at >> 5, .value = info > 23 ? 0 : info};
  *at += 1;
  for (unsigned left = info > 23 ? 1u << (info - 24) : 0; left > 0; --left)
    item.value = item.value << 8 | *(*at)++;
  if (item.major == 6) return take(at, end);
  if (item.major == 4 || item.major == 5) errx(kFailed, "the reply is not flat");
  if (item.major != 2 && item.major != 3) return item;
  if (item.value > (uint64_t)(end - *at)) errx(kFailed, "the reply ends early");
  item.text = *at;
  *at += item.value;
  return item;
}

static void print_reply(const uint8_t* at, size_t size) {
  const uint8_t* const end = at + size;
  if (size == 0 || *at >> 5 != 5 || (*at & 31) > 23) errx(kFailed, "the reply is no map of up to 23 keys");
  for (unsigned left = *at++ & 31; left > 0; --left) {
    const struct Item key = take(&at, end);
    const struct Item value = take(&at, end);
    if (key.major == 3) printf("%.*s=", (int)key.value, (const char*)key.text);
    if (value.major == 3)
      printf("%.*s\n", (int)value.value, (const char*)value.text);
    else
      printf("%llu\n", (unsigned long long)value.value);
  }
}

// ---- Frames

static void read_whole(int fd, void* to, size_t size) {
  const ssize_t count = size == 0 ? 0 : recv(fd, to, size, MSG_WAITALL);
  if (count < 0 && errno != ECONNRESET) err(kFailed, "recv");
  if (count < 0 || (size_t)count < size) turned_away();
}

struct Frame {
  unsigned kind;
  uint64_t identifier;
  size_t length;
  uint8_t body[kMaxBody];
};

static uint64_t little_endian(const uint8_t* at, unsigned size) {
  return size == 0 ? 0 : little_endian(at + 1, size - 1) << 8 | *at;
}

static const struct Frame* read_frame(int fd) {
  static struct Frame frame;
  uint8_t header[kHeaderSize];
  read_whole(fd, header, sizeof header);
  frame.length = (size_t)little_endian(header, 4);
  frame.kind = header[5];
  frame.identifier = little_endian(header + 8, 8);
  if (header[4] != kWireVersion || frame.length > kMaxBody) errx(kFailed, "no frame");
  read_whole(fd, frame.body, frame.length);
  return &frame;
}

// Sends the frame, or only its first half, with the descriptor unless that is negative.
static void send_frame(int fd, unsigned kind, uint64_t identifier, const void* body, size_t length,
                       int descriptor, bool half) {
  uint8_t bytes[kHeaderSize + sizeof(struct Bytes)] = {
      [4] = kWireVersion, [5] = (uint8_t)kind, [6] = descriptor >= 0};
  for (unsigned i = 0; i < 4; ++i) bytes[i] = (uint8_t)(length >> 8 * i);
  for (unsigned i = 0; i < 8; ++i) bytes[8 + i] = (uint8_t)(identifier >> 8 * i);
  memcpy(bytes + kHeaderSize, body, length);
  const size_t size = (kHeaderSize + length) / (half ? 2 : 1);

  struct iovec part = {.iov_base = bytes, .iov_len = size};
  _Alignas(struct cmsghdr) char control[CMSG_SPACE(sizeof(int))] = {0};
  struct msghdr message = {.msg_iov = &part, .msg_iovlen = 1};
  if (descriptor >= 0) {
    message.msg_control = control;
    message.msg_controllen = sizeof control;
    struct cmsghdr* const rights = CMSG_FIRSTHDR(&message);
    rights->cmsg_level = SOL_SOCKET;
    rights->cmsg_type = SCM_RIGHTS;
    rights->cmsg_len = CMSG_LEN(sizeof descriptor);
    memcpy(CMSG_DATA(rights), &descriptor, sizeof descriptor);
  }
  const ssize_t count = sendmsg(fd, &message, MSG_NOSIGNAL);
  if (count < 0 && (errno == EPIPE || errno == ECONNRESET)) turned_away();
  if (count != (ssize_t)size) err(kFailed, "sendmsg");
}

// ---- The conversation

static int connect_to(const char* path) {
  struct sockaddr_un address = {.sun_family = AF_UNIX};
  if (strlen(path) >= sizeof address.sun_path) errx(kFailed, "the socket's path is too long");
  strcpy(address.sun_path, path);
  const int fd = socket(AF_UNIX, SOCK_STREAM, 0);  // goes over to PROGRAM
  if (fd < 0 || connect(fd, (const struct sockaddr*)&address, sizeof address) != 0) err(kFailed, "connect");
  return fd;
}

static void read_welcome(int fd, uint8_t nonce[kNonceSize]) {
  const struct Frame* const welcome = read_frame(fd);
  if (welcome->kind != kWelcome || welcome->length != kNonceSize) errx(kFailed, "no welcome");
  memcpy(nonce, welcome->body, kNonceSize);
}

static void send_hello(int fd, const uint8_t nonce[kNonceSize]) {
  send_frame(fd, kHello, 0, nonce, kNonceSize, -1, false);
}

static void send_request(int fd, const char* path, bool half) {
  const int file = open(path, O_RDONLY | O_CLOEXEC);
  struct stat status;
  if (file < 0 || fstat(file, &status) != 0) err(kFailed, "%s", path);
  struct Bytes body = {0};
  put_head(&body, 5, 5);
  put_text(&body, "FileReputationRequest");
  put_head(&body, 7, 21);  // true
  put_text(&body, "filename");
  put_text(&body, path);
  put_text(&body, "filesize");
  put_head(&body, 0, (uint64_t)status.st_size);
  put_text(&body, "uid");
  put_head(&body, 6, 56101);  // uint64
  put_head(&body, 0, getuid());
  put_text(&body, "filedescriptor");
  put_head(&body, 6, 56103);  // the frame's descriptor
  put_head(&body, 0, 0);
  send_frame(fd, kRequest, kRequestIdentifier, body.at, body.size, file, half);
  close(file);
}

static int await_reply(int fd) {
  const struct Frame* frame = read_frame(fd);
  while (frame->identifier != kRequestIdentifier) frame = read_frame(fd);
  if (frame->kind == kUnanswered) turned_away();
  if (frame->kind != kReply) errx(kFailed, "no reply");
  print_reply(frame->body, frame->length);
  return kAnswered;
}

static int admitted_connection(const char* path) {
  const int fd = connect_to(path);
  uint8_t nonce[kNonceSize];
  read_welcome(fd, nonce);
  send_hello(fd, nonce);
  return fd;
}

// ---- The modes

static int ask_on(int fd, const char* file) {
  send_request(fd, file, false);
  return await_reply(fd);
}

static int churn(const char* path, const char* file, const char* stage_name, long count) {
  enum Stage stage = kConnected;
  while (strcmp(stage_name, kStageNames[stage]) != 0)
    if (++stage == kStages) errx(kFailed, "no such stage");
  uint8_t bytes[kNonceSize];
  for (; count > 0; --count) {
    const int fd = connect_to(path);
    if (stage >= kWelcomed) read_welcome(fd, bytes);
    if (stage >= kHalfway) send_hello(fd, bytes);
    if (stage >= kHalfway) send_request(fd, file, stage == kHalfway);
    if (stage == kAnswering) read_whole(fd, bytes, 1);
    close(fd);
  }
  return kAnswered;
}

static _Noreturn void let_ask(const char* program, int fd, const char* file) {
  char number[16];
  snprintf(number, sizeof number, "%d", fd);
  execl(program, program, "ask-on", number, file, (char*)NULL);
  err(kFailed, "%s", program);
}

static int inherit(const char* path, const char* file, const char* program) {
  const int fd = admitted_connection(path);
  if (fork() == 0) let_ask(program, fd, file);
  int status = 0;
  wait(&status);
  return WIFEXITED(status) ? WEXITSTATUS(status) : kFailed;
}

static _Noreturn void become(const char* path, const char* file, const char* program) {
  const uint8_t made_up[kNonceSize] = {0};
  const int fd = connect_to(path);
  send_hello(fd, made_up);
  send_request(fd, file, false);
  let_ask(program, fd, file);
}

int main(int argc, char** argv) {
  const char* const mode = argc > 1 ? argv[1] : "";
  alarm(kPatience);
  if (argc == 4 && strcmp(mode, "ask") == 0) return ask_on(admitted_connection(argv[2]), argv[3]);
  if (argc == 6 && strcmp(mode, "churn") == 0) return churn(argv[2], argv[3], argv[4], atol(argv[5]));
  if (argc == 5 && strcmp(mode, "inherit") == 0) return inherit(argv[2], argv[3], argv[4]);
  if (argc == 5 && strcmp(mode, "become") == 0) become(argv[2], argv[3], argv[4]);
  if (argc == 4 && strcmp(mode, "ask-on") == 0) return ask_on(atoi(argv[2]), argv[3]);
  errx(kFailed, "see the beginning of its source for its usage");
}
