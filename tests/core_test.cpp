// Result codes, the errno mapping, the allocator, buffers and socket close.
#include "fault.h"

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <set>
#include <sys/socket.h>
#include <unistd.h>

static_assert(VEXO_E_OUT_OF_MEMORY == VEXO_E_INSUFFICIENT_BUFFER && VEXO_E_OUT_OF_MEMORY == -10003);
static_assert(VEXO_E_ERROR == -10001 && VEXO_E_PARAMETER_ERROR == -10004);  // nothing at -10002
static_assert(VEXO_E_FILE_ACCESS == VEXO_E_NET_ACCESS && VEXO_E_NET_ACCESS == -10502);
static_assert(VEXO_E_WOULD_BLOCK == VEXO_E_TRY_AGAIN && VEXO_E_END_OF_FILE == -1);
static_assert(VEXO_E_LAST_ERROR_CODE == VEXO_E_PRIVATE_ERROR_5 && VEXO_E_LAST_ERROR_CODE == -30005);
static_assert(VEXO_E_NET_ == VEXO_E_NET_ERROR && VEXO_E_SYNTAX_ERROR == VEXO_E_ENCODING_ERROR_);
static_assert(VEXO_S_TRUE == VEXO_S_OPERATION_FAILED && VEXO_S_FALSE == VEXO_S_NOERR);

TEST(ResultCodes, SharedValuesTakeTheFirstNameEachNamedValueItsOwnSentence) {
  EXPECT_STREQ(vexo_error_name(VEXO_E_NET_ACCESS), "VEXO_E_FILE_ACCESS");
  EXPECT_STREQ(vexo_error_name(VEXO_E_LAST_ERROR_CODE), "VEXO_E_PRIVATE_ERROR_5");
  EXPECT_EQ(vexo_error_name(static_cast<vexo_t_error_code>(-10002)), nullptr);
  const std::string unknown = vexo_error_message(static_cast<vexo_t_error_code>(-10002));
  std::set<std::string> sentences;
  for (int v = -31000; v <= 31000; ++v) {
    const auto code = static_cast<vexo_t_error_code>(v);
    const char *m = vexo_error_message(code);
    ASSERT_TRUE(m && (!vexo_error_name(code) || (m != unknown && sentences.insert(m).second))) << v;
  }
  EXPECT_GT(sentences.size(), 80u);
}

TEST(MapUnixError, TableFallbackAndAlwaysAFailure) {
  // clang-format off
  const std::vector<std::pair<vexo_t_error_code, std::vector<int>>> table = {
    {VEXO_E_FILE_NOT_FOUND, {ENOENT, ENXIO, ENODEV}}, {VEXO_E_FILE_NOT_DIRECTORY, {ENOTDIR}},
    {VEXO_E_FILE_IS_DIRECTORY, {EISDIR}}, {VEXO_E_FILE_EXISTS, {EEXIST}}, {VEXO_E_DIR_NOT_EMPTY, {ENOTEMPTY}},
    {VEXO_E_FILE_ACCESS, {EACCES, EROFS, ETXTBSY, EBUSY}}, {VEXO_E_PERMISSION_ERROR, {EPERM}},
    {VEXO_E_INVALID_NAME, {ENAMETOOLONG, ELOOP, EILSEQ}}, {VEXO_E_NOSPACE, {ENOSPC, EDQUOT, EFBIG}},
    {VEXO_E_OUT_OF_MEMORY, {ENOMEM, ENOBUFS}}, {VEXO_E_TOO_MANY_OPEN_FILES, {EMFILE, ENFILE}},
    {VEXO_E_INVALID_STATE, {EBADF}}, {VEXO_E_PARAMETER_ERROR, {EINVAL, EFAULT, E2BIG, EDOM, ENOTTY}},
    {VEXO_E_OVERFLOW, {ERANGE, EOVERFLOW}}, {VEXO_E_WOULD_BLOCK, {EAGAIN, EWOULDBLOCK}},
    {VEXO_E_INPROGRESS, {EINPROGRESS, EALREADY}}, {VEXO_E_INTERRUPTED, {EINTR}}, {VEXO_E_IO_ERROR, {EIO}},
    {VEXO_E_SEEK_ERROR, {ESPIPE}}, {VEXO_E_WRITE_ERROR, {EPIPE}}, {VEXO_E_CANCELED, {ECANCELED}},
    {VEXO_E_NOT_IMPLEMENTED, {ENOSYS}}, {VEXO_E_NOT_FOUND, {ECHILD, ESRCH}},
    {VEXO_E_NOT_SUPPORTED, {EXDEV, EMLINK, ENOTSUP, EOPNOTSUPP, EAFNOSUPPORT, EPROTONOSUPPORT,
                            ESOCKTNOSUPPORT, EPFNOSUPPORT, ENOPROTOOPT}}, {VEXO_E_NET_TIMEDOUT, {ETIMEDOUT}},
    {VEXO_E_NET_CONNREFUSED, {ECONNREFUSED}}, {VEXO_E_NET_ADDRINUSE, {EADDRINUSE, EADDRNOTAVAIL}},
    {VEXO_E_NET_CONNRESET, {ECONNRESET, ECONNABORTED, ENOTCONN, ESHUTDOWN}},
    {VEXO_E_NET_HOST_NOT_FOUND, {EHOSTUNREACH, ENETUNREACH, ENETDOWN, EHOSTDOWN}},
    {VEXO_E_NET_ERROR, {ENOTSOCK, EDESTADDRREQ, EMSGSIZE, EPROTOTYPE, EISCONN, ENETRESET}}};
  // clang-format on
  for (const auto &[code, errs] : table)
    for (int err : errs)  // a fallback no row gives, so that a missing row shows
      EXPECT_EQ(vexo_map_unix_error(err, VEXO_E_MISC_ERROR_3), code) << "errno " << err;
  for (int err : {0, -1, EDEADLK, EPROTO})
    EXPECT_EQ(vexo_map_unix_error(err, VEXO_E_CLOSE_ERROR), VEXO_E_CLOSE_ERROR) << "errno " << err;
  EXPECT_TRUE(vexo_map_unix_error(0, VEXO_S_NOERR) == VEXO_E_ERROR &&
              vexo_map_unix_error(EDEADLK, VEXO_S_DONE) == VEXO_E_ERROR);
}

int g_custom_mallocs = 0;

TEST(Allocator, PartialReplacementIsRejectedAndAllNullRestores) {
  auto counting_malloc = [](size_t n) { return ++g_custom_mallocs, std::malloc(n); };
  ASSERT_EQ(vexo_replace_allocator(counting_malloc, std::realloc, std::free), VEXO_S_NOERR);
  EXPECT_EQ(vexo_replace_allocator(std::malloc, nullptr, std::free), VEXO_E_PARAMETER_ERROR);
  EXPECT_EQ(vexo_replace_allocator(nullptr, std::realloc, std::free), VEXO_E_PARAMETER_ERROR);
  EXPECT_EQ(vexo_replace_allocator(std::malloc, std::realloc, nullptr), VEXO_E_PARAMETER_ERROR);
  vexo_free(vexo_alloc(8));
  EXPECT_EQ(g_custom_mallocs, 1) << "a rejected replacement changed the allocator";
  ASSERT_EQ(vexo_replace_allocator(nullptr, nullptr, nullptr), VEXO_S_NOERR);
  vexo_free(vexo_alloc(8));
  EXPECT_EQ(g_custom_mallocs, 1);
}

std::string text(const vexo_t_uint8 *bytes, size_t size) {
  return std::string(reinterpret_cast<const char *>(bytes), size);
}
bool same(const vexo_t_buf &a, const vexo_t_buf &b) {
  return a.buf == b.buf && a.extent == b.extent && a.writable_size == b.writable_size && a.flags == b.flags;
}

TEST(Buf, EmptyRecordGrowsGeometrically) {
  vexo_t_buf b;
  std::memset(&b, 0xAB, sizeof b);
  vexo_buf_init_buf(&b);
  const vexo_t_buf empty = VEXO_BUF_EMPTY_INITIALIZER;
  EXPECT_TRUE(same(b, empty) && empty.flags == 6u && b.pad == 0u);
  fault::alloc_scope scope;
  std::string want;
  for (size_t i = 0; i < 1u << 20; want += static_cast<char>(i++ * 7))
    ASSERT_EQ(vexo_buf_push(&b, static_cast<vexo_t_uint8>(i * 7)), VEXO_S_NOERR);
  EXPECT_TRUE(text(b.buf, b.extent) == want && scope.allocations() <= 40) << "growth is not geometric";
  vexo_buf_free(&b);
  EXPECT_TRUE(same(b, empty) && scope.live() == 0);
}

TEST(Buf, CallerStorageAndHandingOver) {
  fault::alloc_scope scope;
  vexo_t_uint8 storage[4] = {'x', 'x', 'x', 'x'}, *bytes = nullptr;
  size_t size = 99;
  vexo_t_buf b = {storage, 0, sizeof storage, VEXO_BUF_FLAG_GROWABLE, 0};
  ASSERT_EQ(vexo_buf_concat_string(&b, "abc"), VEXO_S_NOERR);
  EXPECT_TRUE(b.buf == storage && scope.allocations() == 0);
  ASSERT_EQ(vexo_buf_concat_string(&b, "defg"), VEXO_S_NOERR);
  EXPECT_TRUE(b.flags == (VEXO_BUF_FLAG_GROWABLE | VEXO_BUF_FLAG_OWNED) &&
              text(b.buf, b.extent) == "abcdefg" && std::memcmp(storage, "abcx", 4) == 0)
      << "grown into an owned block, the caller's storage not written past the text";
  b.extent = 3;
  vexo_t_uint8 *const owned = b.buf;
  ASSERT_EQ(vexo_buf_get_buf(&b, &bytes, &size), VEXO_S_NOERR);
  EXPECT_TRUE(bytes == owned && text(bytes, size) == "abc" && !b.buf)
      << "an owned block is handed over as is";
  vexo_free(bytes);
  vexo_t_buf fixed = {storage, 0, sizeof storage, 0, 0};
  ASSERT_EQ(vexo_buf_concat_string(&fixed, "abcd"), VEXO_S_NOERR);
  const vexo_t_buf full = fixed;
  EXPECT_TRUE(vexo_buf_push(&fixed, 'e') == VEXO_E_INSUFFICIENT_BUFFER &&
              vexo_buf_concat_string(&fixed, "e") == VEXO_E_INSUFFICIENT_BUFFER && same(fixed, full));
  for (vexo_t_buf e : {vexo_t_buf VEXO_BUF_EMPTY_INITIALIZER, vexo_t_buf{storage, 0, sizeof storage, 0, 0}}) {
    ASSERT_EQ(vexo_buf_get_buf(&e, &bytes, &size), VEXO_S_NOERR);
    EXPECT_TRUE(size == 0 && bytes[0] == 0);
    vexo_free(bytes);
  }
  EXPECT_EQ(scope.live(), 0);
}

TEST(Buf, AllocationSweepLeavesTheBufferUnchanged) {
  const std::string tail(100, 'z');
  fault::alloc_sweep([&](fault::alloc_scope &) {
    vexo_t_uint8 storage[4];
    vexo_t_buf b = {storage, 0, sizeof storage, VEXO_BUF_FLAG_GROWABLE, 0};
    std::string want = "ab";
    vexo_t_error_code r = vexo_buf_concat_string(&b, "ab");
    for (int i = 0; r == VEXO_S_NOERR && i < 102; ++i) {  // concat, 100 pushes, concat
      const vexo_t_buf before = b;
      const std::string add = i == 0 ? "cdefgh" : i == 101 ? tail : "p";
      r = i % 101 ? vexo_buf_push(&b, 'p') : vexo_buf_concat_string(&b, add.c_str());
      want += r == VEXO_S_NOERR ? add : "";
      EXPECT_TRUE(r == VEXO_S_NOERR || (r == VEXO_E_OUT_OF_MEMORY && same(b, before))) << i;
      EXPECT_EQ(text(b.buf, b.extent), want);
    }
    vexo_buf_free(&b);
  });
  fault::alloc_sweep([&](fault::alloc_scope &) {  // over caller storage get_buf copies, so it can fail
    vexo_t_uint8 storage[4] = {'a', 'b', 0, 0}, *bytes = nullptr;
    vexo_t_buf b = {storage, 2, sizeof storage, 0, 0};
    const vexo_t_buf before = b;
    size_t size = 77;
    const vexo_t_error_code r = vexo_buf_get_buf(&b, &bytes, &size);
    EXPECT_TRUE(r == VEXO_S_NOERR ? bytes != storage && text(bytes, size) == "ab"
                                  : r == VEXO_E_OUT_OF_MEMORY && same(b, before) && !bytes && size == 77u);
    vexo_free(bytes);
  });
}

using SocketClose = fault::Test;

TEST_F(SocketClose, ClosesOnceMapsFailuresAndNeverRepeatsAnInterruptedClose) {
  int fds[2];
  ASSERT_TRUE(socketpair(AF_UNIX, SOCK_STREAM, 0, fds) == 0 && close(fds[0]) == 0);
  constexpr vexo_t_bits kIgnore = VEXO_SOCKET_CLOSE_OPTION_IGNORE_ERRORS;
  // clang-format off
  const struct { int err, times; vexo_t_bits options; vexo_t_error_code want; } cases[] = {
      {EIO, 1, 0, VEXO_E_IO_ERROR}, {EIO, 1, kIgnore, VEXO_S_NOERR}, {EDEADLK, 1, 0x2, VEXO_E_CLOSE_ERROR},
      {EINTR, 5, 0, VEXO_E_INTERRUPTED}, {EINTR, 5, kIgnore, VEXO_S_NOERR},  // EINTR: one call only
      {0, 0, 0, VEXO_S_NOERR}, {0, 0, 0, VEXO_E_INVALID_STATE}};  // closed for real, then EBADF
  // clang-format on
  for (const auto &c : cases) {
    fault::reset();
    fault::fail(fault::call::close, c.err, c.times);
    EXPECT_EQ(vexo_socket_close(fds[1], c.options), c.want) << c.err << ", options " << c.options;
    EXPECT_EQ(fault::calls(fault::call::close), 1) << c.err;
  }
  EXPECT_EQ(fcntl(fds[1], F_GETFD), -1) << "still open";
}
