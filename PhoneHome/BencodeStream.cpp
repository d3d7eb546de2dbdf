// The bencode file stream: whole-file load and flush under a non-blocking flock, the spool hand-over, and
// the integer reader and writer of the grammar.
#include <cctype>
#include <cerrno>
#include <charconv>
#include <climits>
#include <cstring>

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include "PhoneHome/BencodeInternal.h"
#include "UniqueFd.h"

namespace {

char const kSideFileSuffix[] = ".temp";

int Flock(int fd, int operation) {
  int rc;
  do {
    rc = flock(fd, operation);
  } while (rc < 0 && errno == EINTR);
  return rc;
}

// What sscanf("%lld") yields for `text` (up to its first zero byte): leading white space, an optional sign,
// then decimal digits up to the first non-digit; values beyond the range saturate as glibc's strtoll does.
// False when no digit follows, which is when the scan converts nothing.
bool ScanDecimal(char const* text, long& value) {
  // isspace only off the common path: the scan follows the locale, and files almost always hold bare digits.
  if (*text < '0' || *text > '9') {
    while (std::isspace(static_cast<unsigned char>(*text))) ++text;
  }
  bool negative = *text == '-';
  if (*text == '-' || *text == '+') ++text;
  if (*text < '0' || *text > '9') return false;

  unsigned long const limit = negative ? static_cast<unsigned long>(LONG_MAX) + 1 : LONG_MAX;
  unsigned long magnitude = 0;
  bool overflow = false;
  for (; *text >= '0' && *text <= '9'; ++text) {
    unsigned long digit = static_cast<unsigned long>(*text - '0');
    if (overflow || magnitude > (limit - digit) / 10) {
      overflow = true;
    } else {
      magnitude = magnitude * 10 + digit;
    }
  }
  if (overflow) {
    value = negative ? LONG_MIN : LONG_MAX;
  } else {
    value = negative ? static_cast<long>(0 - magnitude) : static_cast<long>(magnitude);
  }
  return true;
}

// The common case of the integer reader: nothing but up to 18 decimal digits, which cannot overflow and which
// the full scan would convert to the same value.
bool FitsPlainDigits(char const* text, int length, long& value) {
  if (length == 0 || length > 18) return false;
  long result = 0;
  for (int i = 0; i < length; ++i) {
    unsigned const digit = static_cast<unsigned char>(text[i]) - '0';
    if (digit > 9) return false;
    result = result * 10 + static_cast<long>(digit);
  }
  value = result;
  return true;
}

}  // namespace

CBencodeStream::CBencodeStream(std::string const& fileName, bool spool) : m_pBuffer(new CBuffer), m_bSpool(spool) {
  SetFileName(fileName);
}

CBencodeStream::~CBencodeStream() { delete m_pBuffer; }

void CBencodeStream::ResetStream() { m_pBuffer->Assign(std::string()); }
bool CBencodeStream::Read(char* buffer, unsigned long count) { return m_pBuffer->Read(buffer, count); }
bool CBencodeStream::Write(char const* buffer, unsigned long count) { return m_pBuffer->Write(buffer, count); }
int CBencodeStream::Peek() { return m_pBuffer->Peek(); }
long CBencodeStream::Tellp() { return m_pBuffer->Tellp(); }
long CBencodeStream::Tellg() { return m_pBuffer->Tellg(); }
bool CBencodeStream::Seekp(unsigned long offset, std::ios_base::seekdir direction) {
  return m_pBuffer->Seekp(offset, direction);
}
bool CBencodeStream::Seekg(unsigned long offset, std::ios_base::seekdir direction) {
  return m_pBuffer->Seekg(offset, direction);
}
bool CBencodeStream::Fail() const { return m_pBuffer->Fail(); }
bool CBencodeStream::Eof() const { return m_pBuffer->Eof(); }
bool CBencodeStream::Good() const { return m_pBuffer->Good(); }
void CBencodeStream::Clear() { m_pBuffer->Clear(); }

void CBencodeStream::SetFileName(std::string const& fileName) { m_strFileName = fileName.substr(0, fileName.find('\0')); }

EBencodeResult CBencodeStream::LoadStream() {
  std::string const path = m_bSpool ? m_strFileName + kSideFileSuffix : m_strFileName;

  UniqueFd file(OpenCloexec(path.c_str(), O_RDONLY));
  if (!file.Valid()) {
    int error = errno;
    if (error == ENOENT) {
      UniqueFd created(OpenCloexec(path.c_str(), O_WRONLY | O_CREAT, sm_fileCreationMode));
      error = errno;
      if (created.Valid()) {
        created.Reset();
        file.Reset(OpenCloexec(path.c_str(), O_RDONLY));
        error = errno;
      }
    }
    if (!file.Valid()) {
      BENCODE_FAILURE(error, "File open failed");
      return eBencodeError;
    }
  }

  if (Flock(file.Get(), LOCK_EX | LOCK_NB) != 0) {
    BENCODE_FAILURE(errno, "Failed to acquire file lock");
    return eBencodeLockError;
  }

  struct stat status;
  if (fstat(file.Get(), &status) != 0) {
    BENCODE_FAILURE(errno, "Failed to get file size");
    Flock(file.Get(), LOCK_UN);
    return eBencodeError;
  }
  if (status.st_size > sm_iMaxFileSize) {
    BENCODE_FAILURE(eBencodeIllegalData, "File size exceeds maximum limit");
    Flock(file.Get(), LOCK_UN);
    return eBencodeIllegalData;
  }

  // Read straight into the string that becomes the buffer, so the file text exists once in memory.
  std::string text(static_cast<size_t>(status.st_size), '\0');
  ssize_t const got = ReadRetrying(file.Get(), &text[0], text.size());
  int const readError = errno;

  if (Flock(file.Get(), LOCK_UN) != 0) {
    BENCODE_FAILURE(errno, "Failed to release file lock");
  }
  if (got < static_cast<ssize_t>(text.size())) {
    file.Reset();
    BENCODE_FAILURE(readError, "File read failed");
    return eBencodeError;
  }
  file.Reset();

  std::string::size_type const zero = text.find('\0');
  if (zero != std::string::npos) text.resize(zero);
  m_pBuffer->Assign(std::move(text));
  return eBencodeOk;
}

EBencodeResult CBencodeStream::FlushStream(bool& wroteSideFile) {
  wroteSideFile = false;
  // The buffer's whole text: up to the farther of the write position and the end of what was loaded. After
  // a load and a shorter serialisation the old tail is written too; readers stop at the end of the
  // top-level value, so the file still reads as the new value. Kept deliberately.
  std::string const& text = m_pBuffer->Text();

  bool toSideFile = false;
  UniqueFd file(-1);
  if (m_bSpool) {
    file.Reset(
        OpenCloexec(m_strFileName.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_TRUNC, sm_fileCreationMode));
    if (!file.Valid() && errno == EEXIST) {
      // The consumer has not taken the last hand-over yet: keep the data beside it.
      toSideFile = true;
      file.Reset(OpenCloexec((m_strFileName + kSideFileSuffix).c_str(), O_WRONLY | O_CREAT | O_TRUNC,
                             sm_fileCreationMode));
    }
  } else {
    file.Reset(OpenCloexec(m_strFileName.c_str(), O_WRONLY | O_CREAT | O_TRUNC, sm_fileCreationMode));
  }
  if (!file.Valid()) {
    BENCODE_FAILURE(errno, "File open failed");
    return eBencodeError;
  }

  if (Flock(file.Get(), LOCK_EX | LOCK_NB) != 0) {
    BENCODE_FAILURE(errno, "Failed to acquire file lock");
    return eBencodeError;
  }
  ssize_t const written = WriteRetrying(file.Get(), text.data(), text.size());
  Flock(file.Get(), LOCK_UN);
  file.Reset();

  if (written < static_cast<ssize_t>(text.size())) {
    BENCODE_FAILURE(eBencodeError, "File write failed");
    return eBencodeError;
  }
  wroteSideFile = toSideFile;
  return eBencodeOk;
}

CBencodeStream& CBencodeStream::operator<<(long value) {
  char text[sm_iMaxIntSize];
  std::to_chars_result const printed = std::to_chars(text, text + sm_iMaxIntSize - 1, value);
  if (printed.ec != std::errc()) {
    m_pBuffer->SetFail();
    BENCODE_FAILURE(eBencodeError, "snprintf failed");
    return *this;
  }
  m_pBuffer->Write(text, static_cast<unsigned long>(printed.ptr - text));
  return *this;
}

void CBencodeStream::WriteString(std::string const& text) {
  // One write for the "length:" head; the same bytes as the integer writer followed by ':'.
  char head[sm_iMaxIntSize + 1];
  std::to_chars_result const printed = std::to_chars(head, head + sm_iMaxIntSize - 1, static_cast<long>(text.size()));
  *printed.ptr = ':';
  m_pBuffer->Write(head, static_cast<unsigned long>(printed.ptr + 1 - head));
  *this << text;
}

void CBencodeStream::WriteInteger(long value) {
  // In one write, as the value is the most common token of a file.
  char token[sm_iMaxIntSize + 2];
  token[0] = 'i';
  std::to_chars_result const printed = std::to_chars(token + 1, token + sm_iMaxIntSize, value);
  *printed.ptr = 'e';
  m_pBuffer->Write(token, static_cast<unsigned long>(printed.ptr + 1 - token));
}

CBencodeStream& CBencodeStream::operator<<(std::string const& text) {
  m_pBuffer->Write(text.data(), std::min(text.size(), text.find('\0')));
  return *this;
}

CBencodeStream& CBencodeStream::operator>>(long& value) {
  if (!m_pBuffer->Good()) {
    BENCODE_FAILURE(eBencodeIllegalData, "Failed to read integer value");
    return *this;
  }
  char text[sm_iMaxIntSize];
  int length = 0;
  switch (m_pBuffer->ScanIntegerText(text, sm_iMaxIntSize, length)) {
    case CBuffer::eScanEnded:
      BENCODE_FAILURE(eBencodeIllegalData, "Failed to read integer value");
      return *this;
    case CBuffer::eScanFull:
      // Deliberately leaves the stream good and the target unchanged, so an integer of exactly 21 characters
      // followed by 'e' parses as the old value and a 21-character length as 0: which files parse must not change.
      BENCODE_FAILURE(eBencodeIllegalData, "Failed to read integer value");
      return *this;
    case CBuffer::eScanStopped:
      break;
  }
  text[length] = '\0';

  if (FitsPlainDigits(text, length, value)) return *this;
  if (!ScanDecimal(text, value)) {
    m_pBuffer->SetFail();
    BENCODE_FAILURE(eBencodeIllegalData, "Failed to read integer value");
  }
  return *this;
}

std::unique_ptr<CBencode> BencodeInternal::NewValueFor(int firstByte) {
  switch (firstByte) {
    case 'i':
      return std::make_unique<CBencode>(CBencode::eInteger);
    case 'l':
      return std::make_unique<CBencodeList>(true);
    case 'd':
      return std::make_unique<CBencodeDictionary>(true);
    default:
      return std::make_unique<CBencode>(CBencode::eString);
  }
}

EBencodeResult BencodeInternal::Load(CBencode& container, CBencodeStream& stream) {
  EBencodeResult const loaded = stream.LoadStream();
  if (loaded != eBencodeOk) return loaded;
  return container.Internalize(stream) ? eBencodeOk : eBencodeIllegalData;
}

EBencodeResult BencodeInternal::Store(CBencode& container, CBencodeStream& stream, bool spool,
                                                   bool flush) {
  if (!stream.Seekp(0, std::ios_base::beg)) stream.Clear();
  if (!container.Externalize(stream)) return eBencodeError;
  if (!flush) return eBencodeOk;

  bool wroteSideFile = false;
  EBencodeResult const flushed = stream.FlushStream(wroteSideFile);
  if (flushed != eBencodeOk) {
    // Reported as the container's Externalize, where the caller sees the failure.
    BencodeInternal::LogFailure("Externalize", __LINE__, "Failed to flush stream to the file", flushed);
  } else if (spool && !wroteSideFile) {
    container.Reset();  // handed over to the consumer
  }
  stream.ResetStream();
  return flushed;
}
