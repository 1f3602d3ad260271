// Buffered file input and output with transparent .gz / .bz2 compression (chosen by suffix), and
// the line reader the text formats are parsed from. Nothing here allocates per line or token.
#pragma once

#include <cstdarg>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

namespace kvr::io {

// Compression named by the last suffix of a file name.
enum class Compression { None, Gzip, Bzip2 };

// Splits "model.lp.gz" into the compression and the name without the compression suffix
// ("model.lp"). Throws NOT_SUPPORTED for compressed formats this build cannot handle.
Compression compression_of(std::string_view filename, std::string_view *inner = nullptr);

// A source of raw bytes: a plain file or a decompressor.
class ByteSource {
 public:
  virtual ~ByteSource() = default;
  // Reads up to n bytes; returns 0 at the end. Throws FILE_READ on errors.
  virtual size_t read(char *buf, size_t n) = 0;
};

// A sink of raw bytes; close() reports late errors (full disk, compressor failure).
class ByteSink {
 public:
  virtual ~ByteSink() = default;
  virtual void write(const char *data, size_t n) = 0;
  virtual void close() = 0;
};

std::unique_ptr<ByteSource> open_source(const std::string &filename);
std::unique_ptr<ByteSink> open_sink(const std::string &filename);

// Reads a file line by line. Lines are views into an internal buffer, valid until the next call
// of next(); the newline (and a '\r' before it) is stripped.
class LineReader {
 public:
  // A longer line fails the read instead of taking ever more memory.
  static constexpr size_t kMaxLineBytes = size_t{256} << 20;
  explicit LineReader(const std::string &filename);
  bool next(std::string_view &line);
  long line_number() const { return lineno_; }
  const std::string &filename() const { return filename_; }
  // Throws FILE_READ with "<file>, line <n>: <message>".
  [[noreturn]] void fail(const char *fmt, ...) const __attribute__((format(printf, 2, 3)));
  [[noreturn]] void vfail(const char *fmt, va_list ap) const;
  // The number in a field of the current line (see to_double); fails with "expected a number
  // for <what>, found '<field>'".
  double number(std::string_view field, const char *what) const;

 private:
  bool refill();
  [[noreturn]] void stop_on_interrupt() const;
  std::string filename_;
  std::unique_ptr<ByteSource> src_;
  // Left uninitialized: only the part the file fills is ever touched, so reading a small file
  // costs no more than its size.
  std::unique_ptr<char[]> buf_;
  size_t cap_ = 0, pos_ = 0, end_ = 0;
  bool eof_ = false;
  long lineno_ = 0;
};

// Buffered text output. Numbers are written in the shortest form that reads back exactly.
// The file is created at once; finish() flushes and closes it. A writer destroyed without
// finish() (an error on the way) removes the partial file.
class TextWriter {
 public:
  explicit TextWriter(const std::string &filename);
  ~TextWriter();
  TextWriter(const TextWriter &) = delete;
  TextWriter &operator=(const TextWriter &) = delete;

  TextWriter &put(std::string_view s) {
    if (s.size() > kBufSize - used_) flush();
    if (s.size() > kBufSize) {
      sink_->write(s.data(), s.size());
    } else {
      s.copy(buf_.get() + used_, s.size());
      used_ += s.size();
    }
    return *this;
  }
  TextWriter &put(char c) {
    if (used_ == kBufSize) flush();
    buf_[used_++] = c;
    return *this;
  }
  TextWriter &num(double v);  // shortest exact form; +-inf written as +-1e+100 (KVR_INFINITY)
  TextWriter &num(long long v);
  TextWriter &num(int v) { return num(static_cast<long long>(v)); }
  void finish();
  const std::string &filename() const { return filename_; }

 private:
  static constexpr size_t kBufSize = 1 << 18;
  void flush();
  std::string filename_;
  std::unique_ptr<ByteSink> sink_;
  std::unique_ptr<char[]> buf_;
  size_t used_ = 0;
  bool finished_ = false;
};

// Writes the shortest decimal text that reads back as v; returns the length (at most 32).
int format_double(double v, char *out);

// Number parsing for the readers: the whole token must be a number. "inf", "infinity" (any case,
// optional sign) are accepted; values at or beyond 1e100 in magnitude are clamped to +-1e100.
bool to_double(std::string_view s, double &out);
bool to_int(std::string_view s, long long &out);

}  // namespace kvr::io
