#include "io/stream.h"

#include <algorithm>
#include <cerrno>
#include <charconv>
#include <cmath>
#include <cstdio>
#include <cstring>
#include <new>

#include "kaviro_c.h"
#include "util/error.h"
#include "util/interrupt.h"

#ifdef KVR_HAVE_ZLIB
#include <zlib.h>
#endif
#ifdef KVR_HAVE_BZIP2
#include <bzlib.h>
#endif

namespace kvr::io {

namespace {

bool ends_with_ci(std::string_view s, std::string_view suffix) {
  if (s.size() < suffix.size()) return false;
  for (size_t i = 0; i < suffix.size(); ++i) {
    char a = s[s.size() - suffix.size() + i];
    if (a >= 'A' && a <= 'Z') a = static_cast<char>(a - 'A' + 'a');
    if (a != suffix[i]) return false;
  }
  return true;
}

// ---------------------------------------------------------------- plain files

class PlainSource : public ByteSource {
 public:
  PlainSource(const std::string &name) : name_(name) {
    f_ = std::fopen(name.c_str(), "rb");
    if (!f_ && errno == EINTR && read_interrupted())
      fail(KVR_ERROR_FILE_READ, "%s: reading stopped by Ctrl-C", name.c_str());
    if (!f_)
      fail(KVR_ERROR_FILE_READ, "Unable to open '%s' for reading: %s", name.c_str(),
           std::strerror(errno));
  }
  ~PlainSource() override { std::fclose(f_); }
  size_t read(char *buf, size_t n) override {
    for (;;) {
      size_t got = std::fread(buf, 1, n, f_);
      if (got == n || !std::ferror(f_)) return got;
      // A signal that arrives while a pipe or terminal waits for data breaks off the wait: the
      // caller sees Ctrl-C when it was that, and otherwise the wait goes on.
      if (errno != EINTR)
        fail(KVR_ERROR_FILE_READ, "Error while reading '%s': %s", name_.c_str(),
             std::strerror(errno));
      std::clearerr(f_);
      if (got > 0 || read_interrupted()) return got;
    }
  }

 private:
  std::string name_;
  std::FILE *f_;
};

class PlainSink : public ByteSink {
 public:
  PlainSink(const std::string &name) : name_(name) {
    f_ = std::fopen(name.c_str(), "wb");
    if (!f_)
      fail(KVR_ERROR_FILE_WRITE, "Unable to open '%s' for writing: %s", name.c_str(),
           std::strerror(errno));
  }
  ~PlainSink() override {
    if (f_) std::fclose(f_);
  }
  void write(const char *data, size_t n) override {
    if (std::fwrite(data, 1, n, f_) != n)
      fail(KVR_ERROR_FILE_WRITE, "Error while writing '%s': %s", name_.c_str(),
           std::strerror(errno));
  }
  void close() override {
    std::FILE *f = f_;
    f_ = nullptr;
    if (std::fclose(f) != 0)
      fail(KVR_ERROR_FILE_WRITE, "Error while writing '%s': %s", name_.c_str(),
           std::strerror(errno));
  }

 private:
  std::string name_;
  std::FILE *f_;
};

// ---------------------------------------------------------------- gzip

#ifdef KVR_HAVE_ZLIB
class GzipSource : public ByteSource {
 public:
  GzipSource(const std::string &name) : name_(name) {
    f_ = gzopen(name.c_str(), "rb");
    if (!f_)
      fail(KVR_ERROR_FILE_READ, "Unable to open '%s' for reading: %s", name.c_str(),
           errno ? std::strerror(errno) : "out of memory");
    gzbuffer(f_, 1 << 17);
  }
  ~GzipSource() override { gzclose(f_); }
  size_t read(char *buf, size_t n) override {
    int got = gzread(f_, buf, static_cast<unsigned>(std::min<size_t>(n, 1u << 30)));
    int code = Z_OK;
    // A stream cut short ends like a whole one; only the error state tells them apart.
    if (got <= 0) gzerror(f_, &code);
    if (code == Z_ERRNO && errno == EINTR && read_interrupted()) return 0;
    if (got < 0 || code != Z_OK) {
      if (code == Z_MEM_ERROR) throw std::bad_alloc();
      fail(KVR_ERROR_FILE_READ, "Error while decompressing '%s': %s", name_.c_str(),
           code == Z_ERRNO       ? std::strerror(errno)
           : code == Z_BUF_ERROR ? "the file ends inside the compressed data"
                                 : "the compressed data is corrupt");
    }
    return static_cast<size_t>(got);
  }

 private:
  std::string name_;
  gzFile f_;
};

class GzipSink : public ByteSink {
 public:
  GzipSink(const std::string &name) : name_(name) {
    f_ = gzopen(name.c_str(), "wb6");
    if (!f_)
      fail(KVR_ERROR_FILE_WRITE, "Unable to open '%s' for writing: %s", name.c_str(),
           errno ? std::strerror(errno) : "out of memory");
  }
  ~GzipSink() override {
    if (f_) gzclose(f_);
  }
  void write(const char *data, size_t n) override {
    while (n > 0) {
      unsigned chunk = static_cast<unsigned>(std::min<size_t>(n, 1u << 30));
      if (gzwrite(f_, data, chunk) != static_cast<int>(chunk)) {
        int code = 0;
        fail(KVR_ERROR_FILE_WRITE, "Error while compressing '%s': %s", name_.c_str(),
             gzerror(f_, &code));
      }
      data += chunk;
      n -= chunk;
    }
  }
  void close() override {
    gzFile f = f_;
    f_ = nullptr;
    if (gzclose(f) != Z_OK) fail(KVR_ERROR_FILE_WRITE, "Error while writing '%s'", name_.c_str());
  }

 private:
  std::string name_;
  gzFile f_;
};
#endif

// ---------------------------------------------------------------- bzip2

#ifdef KVR_HAVE_BZIP2
class Bzip2Source : public ByteSource {
 public:
  Bzip2Source(const std::string &name) : name_(name) {
    f_ = std::fopen(name.c_str(), "rb");
    if (!f_)
      fail(KVR_ERROR_FILE_READ, "Unable to open '%s' for reading: %s", name.c_str(),
           std::strerror(errno));
    open_stream(nullptr, 0);
  }
  ~Bzip2Source() override {
    int err;
    if (bz_) BZ2_bzReadClose(&err, bz_);
    std::fclose(f_);
  }
  size_t read(char *buf, size_t n) override {
    size_t total = 0;
    while (total < n && bz_) {
      int err = BZ_OK;
      int want = static_cast<int>(std::min<size_t>(n - total, 1u << 30));
      int got = BZ2_bzRead(&err, bz_, buf + total, want);
      if (err != BZ_OK && err != BZ_STREAM_END) fail_decompress(err);
      total += static_cast<size_t>(got);
      if (err == BZ_STREAM_END) next_stream();
    }
    return total;
  }

 private:
  void open_stream(void *unused, int nunused) {
    int err = BZ_OK;
    bz_ = BZ2_bzReadOpen(&err, f_, 0, 0, unused, nunused);
    if (err != BZ_OK) fail_decompress(err);
  }
  [[noreturn]] void fail_decompress(int err) const {
    if (err == BZ_MEM_ERROR) throw std::bad_alloc();
    fail(KVR_ERROR_FILE_READ, "Error while decompressing '%s': %s", name_.c_str(),
         err == BZ_IO_ERROR           ? std::strerror(errno)
         : err == BZ_UNEXPECTED_EOF   ? "the file ends inside the compressed data"
         : err == BZ_DATA_ERROR_MAGIC ? "it is not bzip2 data"
                                      : "the compressed data is corrupt");
  }
  // Files made by parallel compressors are several streams back to back.
  void next_stream() {
    int err = BZ_OK;
    void *unused = nullptr;
    int nunused = 0;
    BZ2_bzReadGetUnused(&err, bz_, &unused, &nunused);
    char keep[BZ_MAX_UNUSED];
    std::memcpy(keep, unused, static_cast<size_t>(nunused));
    BZ2_bzReadClose(&err, bz_);
    bz_ = nullptr;
    if (nunused == 0) {
      int c = std::fgetc(f_);
      if (c == EOF) return;
      std::ungetc(c, f_);
    }
    open_stream(keep, nunused);
  }
  std::string name_;
  std::FILE *f_;
  BZFILE *bz_ = nullptr;
};

class Bzip2Sink : public ByteSink {
 public:
  Bzip2Sink(const std::string &name) : name_(name) {
    f_ = std::fopen(name.c_str(), "wb");
    if (!f_)
      fail(KVR_ERROR_FILE_WRITE, "Unable to open '%s' for writing: %s", name.c_str(),
           std::strerror(errno));
    int err = BZ_OK;
    bz_ = BZ2_bzWriteOpen(&err, f_, 9, 0, 0);
    if (err != BZ_OK) {
      std::fclose(f_);
      fail(KVR_ERROR_FILE_WRITE, "Unable to compress '%s' (bzip2 error %d)", name.c_str(), err);
    }
  }
  ~Bzip2Sink() override {
    if (bz_) {
      int err;
      BZ2_bzWriteClose(&err, bz_, 1, nullptr, nullptr);
    }
    if (f_) std::fclose(f_);
  }
  void write(const char *data, size_t n) override {
    while (n > 0) {
      int chunk = static_cast<int>(std::min<size_t>(n, 1u << 30));
      int err = BZ_OK;
      BZ2_bzWrite(&err, bz_, const_cast<char *>(data), chunk);
      if (err != BZ_OK)
        fail(KVR_ERROR_FILE_WRITE, "Error while compressing '%s' (bzip2 error %d)", name_.c_str(),
             err);
      data += chunk;
      n -= static_cast<size_t>(chunk);
    }
  }
  void close() override {
    int err = BZ_OK;
    BZFILE *bz = bz_;
    bz_ = nullptr;
    BZ2_bzWriteClose(&err, bz, 0, nullptr, nullptr);
    std::FILE *f = f_;
    f_ = nullptr;
    bool closed = std::fclose(f) == 0;
    if (err != BZ_OK || !closed)
      fail(KVR_ERROR_FILE_WRITE, "Error while writing '%s'", name_.c_str());
  }

 private:
  std::string name_;
  std::FILE *f_;
  BZFILE *bz_ = nullptr;
};
#endif

}  // namespace

Compression compression_of(std::string_view filename, std::string_view *inner) {
  Compression c = Compression::None;
  size_t cut = 0;
  if (ends_with_ci(filename, ".gz")) {
    c = Compression::Gzip, cut = 3;
  } else if (ends_with_ci(filename, ".bz2")) {
    c = Compression::Bzip2, cut = 4;
  } else {
    for (std::string_view other : {".zip", ".7z", ".xz"})
      if (ends_with_ci(filename, other))
        fail(KVR_ERROR_NOT_SUPPORTED,
             "Unable to handle '%.*s': %.*s compression is not supported (use .gz or .bz2)",
             static_cast<int>(filename.size()), filename.data(), static_cast<int>(other.size()),
             other.data());
  }
  if (inner) *inner = filename.substr(0, filename.size() - cut);
#ifndef KVR_HAVE_ZLIB
  if (c == Compression::Gzip)
    fail(KVR_ERROR_NOT_SUPPORTED,
         "Unable to handle '%.*s': this build of the library has no gzip support",
         static_cast<int>(filename.size()), filename.data());
#endif
#ifndef KVR_HAVE_BZIP2
  if (c == Compression::Bzip2)
    fail(KVR_ERROR_NOT_SUPPORTED,
         "Unable to handle '%.*s': this build of the library has no bzip2 support",
         static_cast<int>(filename.size()), filename.data());
#endif
  return c;
}

std::unique_ptr<ByteSource> open_source(const std::string &filename) {
  switch (compression_of(filename)) {
#ifdef KVR_HAVE_ZLIB
    case Compression::Gzip:
      return std::make_unique<GzipSource>(filename);
#endif
#ifdef KVR_HAVE_BZIP2
    case Compression::Bzip2:
      return std::make_unique<Bzip2Source>(filename);
#endif
    default:
      return std::make_unique<PlainSource>(filename);
  }
}

std::unique_ptr<ByteSink> open_sink(const std::string &filename) {
  switch (compression_of(filename)) {
#ifdef KVR_HAVE_ZLIB
    case Compression::Gzip:
      return std::make_unique<GzipSink>(filename);
#endif
#ifdef KVR_HAVE_BZIP2
    case Compression::Bzip2:
      return std::make_unique<Bzip2Sink>(filename);
#endif
    default:
      return std::make_unique<PlainSink>(filename);
  }
}

// ---------------------------------------------------------------- LineReader

LineReader::LineReader(const std::string &filename)
    : filename_(filename),
      src_(open_source(filename)),
      buf_(std::make_unique_for_overwrite<char[]>(1 << 20)),
      cap_(1 << 20) {}

void LineReader::stop_on_interrupt() const {
  kvr::fail(KVR_ERROR_FILE_READ, "%s, line %ld: reading stopped by Ctrl-C", filename_.c_str(),
            lineno_);
}

bool LineReader::refill() {
  if (eof_) return false;
  // Once per buffer (at most 1 MiB of text), so that Ctrl-C ends even a huge read at once.
  if (read_interrupted()) stop_on_interrupt();
  // Keep the unfinished line, move it to the front, grow when one line fills the buffer.
  size_t keep = end_ - pos_;
  if (pos_ > 0) {
    std::memmove(buf_.get(), buf_.get() + pos_, keep);
    pos_ = 0;
    end_ = keep;
  }
  if (end_ == cap_) {
    if (cap_ >= kMaxLineBytes)
      kvr::fail(KVR_ERROR_FILE_READ, "%s, line %ld: the line is longer than %zu MiB",
                filename_.c_str(), lineno_ + 1, kMaxLineBytes >> 20);
    auto bigger = std::make_unique_for_overwrite<char[]>(cap_ * 2);
    std::memcpy(bigger.get(), buf_.get(), end_);
    buf_ = std::move(bigger);
    cap_ *= 2;
  }
  size_t got = src_->read(buf_.get() + end_, cap_ - end_);
  if (read_interrupted()) stop_on_interrupt();
  if (got == 0) eof_ = true;
  end_ += got;
  return got > 0;
}

bool LineReader::next(std::string_view &line) {
  size_t scanned = pos_;
  for (;;) {
    const char *start = buf_.get() + scanned;
    const void *nl = std::memchr(start, '\n', end_ - scanned);
    if (nl) {
      size_t e = static_cast<size_t>(static_cast<const char *>(nl) - buf_.get());
      size_t len = e - pos_;
      if (len > 0 && buf_[e - 1] == '\r') --len;
      line = std::string_view(buf_.get() + pos_, len);
      pos_ = e + 1;
      ++lineno_;
      return true;
    }
    size_t done = end_ - pos_;
    if (!refill()) {
      if (pos_ == end_) return false;
      size_t len = end_ - pos_;
      if (buf_[pos_ + len - 1] == '\r') --len;
      line = std::string_view(buf_.get() + pos_, len);
      pos_ = end_;
      ++lineno_;
      return true;
    }
    scanned = pos_ + done;
  }
}

void LineReader::vfail(const char *fmt, va_list ap) const {
  std::string what = vformat(fmt, ap);
  if (lineno_ == 0 && eof_ && end_ == 0)
    throw Error(KVR_ERROR_FILE_READ,
                format("%s: the file is empty: %s", filename_.c_str(), what.c_str()));
  throw Error(KVR_ERROR_FILE_READ,
              format("%s, line %ld: %s", filename_.c_str(), lineno_, what.c_str()));
}

void LineReader::fail(const char *fmt, ...) const {
  va_list ap;
  va_start(ap, fmt);
  vfail(fmt, ap);
}

double LineReader::number(std::string_view field, const char *what) const {
  double v;
  if (!to_double(field, v))
    fail("expected a number for %s, found '%.*s'", what, static_cast<int>(field.size()),
         field.data());
  return v;
}

// ---------------------------------------------------------------- TextWriter

TextWriter::TextWriter(const std::string &filename)
    : filename_(filename), sink_(open_sink(filename)), buf_(new char[kBufSize]) {}

TextWriter::~TextWriter() {
  if (!finished_) {
    sink_.reset();
    std::remove(filename_.c_str());
  }
}

void TextWriter::flush() {
  if (used_) sink_->write(buf_.get(), used_);
  used_ = 0;
}

void TextWriter::finish() {
  flush();
  sink_->close();
  finished_ = true;
}

int format_double(double v, char *out) {
  if (v >= KVR_INFINITY) v = KVR_INFINITY;
  if (v <= -KVR_INFINITY) v = -KVR_INFINITY;
  if (std::isnan(v)) {
    std::memcpy(out, "nan", 3);
    return 3;
  }
  if (v == 0.0) v = 0.0;  // no "-0"
  auto r = std::to_chars(out, out + 32, v);
  return static_cast<int>(r.ptr - out);
}

TextWriter &TextWriter::num(double v) {
  if (kBufSize - used_ < 32) flush();
  used_ += static_cast<size_t>(format_double(v, buf_.get() + used_));
  return *this;
}

TextWriter &TextWriter::num(long long v) {
  if (kBufSize - used_ < 24) flush();
  auto r = std::to_chars(buf_.get() + used_, buf_.get() + kBufSize, v);
  used_ = static_cast<size_t>(r.ptr - buf_.get());
  return *this;
}

// ---------------------------------------------------------------- numbers

namespace {

// The decimal order of magnitude (floor of log10) of the nonzero number written in [b, e), from
// the position of its first nonzero digit and its exponent; saturates far beyond any double.
long long decimal_order(const char *b, const char *e) {
  constexpr long long kFar = 1LL << 40;
  long long order = 0;
  bool seen_point = false, seen_digit = false;
  long long int_digits = 0, zeros_after_point = 0;
  const char *p = b;
  for (; p < e && *p != 'e' && *p != 'E'; ++p) {
    if (*p == '.') {
      seen_point = true;
    } else if (!seen_digit && *p == '0') {
      if (seen_point) zeros_after_point = std::min(zeros_after_point + 1, kFar);
    } else {
      seen_digit = true;
      if (!seen_point) int_digits = std::min(int_digits + 1, kFar);
    }
  }
  order = int_digits > 0 ? int_digits - 1 : -zeros_after_point - 1;
  if (p < e) {
    ++p;
    bool neg = p < e && *p == '-';
    if (p < e && (*p == '-' || *p == '+')) ++p;
    long long exp = 0;
    for (; p < e; ++p) exp = std::min(exp * 10 + (*p - '0'), kFar);
    order += neg ? -exp : exp;
  }
  return order;
}

}  // namespace

bool to_double(std::string_view s, double &out) {
  if (s.empty()) return false;
  const char *b = s.data(), *e = s.data() + s.size();
  bool neg = false;
  if (*b == '+' || *b == '-') {
    neg = *b == '-';
    ++b;
    if (b == e) return false;
  }
  // from_chars would take "inf"/"nan" too; handle the words here so that "nan" is refused.
  char c = *b;
  if (c == 'i' || c == 'I') {
    std::string_view w(b, static_cast<size_t>(e - b));
    if (w.size() != 3 && w.size() != 8) return false;
    static constexpr std::string_view kWord = "infinity";
    for (size_t i = 0; i < w.size(); ++i)
      if ((w[i] | 0x20) != kWord[i]) return false;
    out = neg ? -KVR_INFINITY : KVR_INFINITY;
    return true;
  }
  if (!((c >= '0' && c <= '9') || c == '.')) return false;
  auto r = std::from_chars(b, e, out);
  if (r.ptr != e) return false;
  if (r.ec == std::errc::result_out_of_range) {
    // Too large is infinite, too small is zero: which one follows from the value's decimal order
    // of magnitude, not from the text's shape ("0.000...1" underflows, "1000...0e-400" does not).
    out = decimal_order(b, e) >= 0 ? KVR_INFINITY : 0.0;
  } else if (r.ec != std::errc()) {
    return false;
  }
  if (out >= KVR_INFINITY) out = KVR_INFINITY;
  if (neg) out = -out;
  return true;
}

bool to_int(std::string_view s, long long &out) {
  if (!s.empty() && s.front() == '+') s.remove_prefix(1);
  if (s.empty()) return false;
  auto r = std::from_chars(s.data(), s.data() + s.size(), out);
  return r.ec == std::errc() && r.ptr == s.data() + s.size();
}

}  // namespace kvr::io
