// jcxxframe.cpp - the frame record, its wire header, and frames on a sock.
//
// Every frame on a stream begins with a header of 1, 2, 3 or 5 bytes. Bit 7 of
// the lead byte tells a signal from the others, bit 6 a message header from a
// data frame; bits 5-4 hold the form in which the size follows.
#include "jcxxframe.h"

#include <cstring>
#include <memory>
#include <new>

#include "jcxxactorapi.h"
#include "jcxxsock.h"
#include "log.h"

namespace {

constexpr unsigned char kSignalBit = 0x80;
constexpr unsigned char kLongSignalBit = 0x40;
constexpr unsigned char kShortSignalMask = 0x3F;
constexpr unsigned char kMsgHeaderBit = 0x40;
constexpr unsigned kFormShift = 4;
constexpr unsigned char kFormMask = 0x03;
constexpr unsigned char kSizeMask = 0x0F;

constexpr std::uint32_t kForm1Base = 16;  // form 1 holds the size less this
constexpr std::uint32_t kForm2Base = kForm1Base + 0x1000;
constexpr std::uint32_t kForm3Base = 0x10000;

unsigned char ByteOf(std::uint32_t number, unsigned shift) {
  return static_cast<unsigned char>(number >> shift);
}

unsigned char LeadByte(unsigned char kind, unsigned form, std::uint32_t size_bits) {
  return static_cast<unsigned char>(kind | (form << kFormShift) | size_bits);
}

// Encodes a signal's value; returns the header's length.
std::size_t EncodeSignal(unsigned char value, unsigned char* header) {
  if (value <= kShortSignalMask) {
    header[0] = static_cast<unsigned char>(kSignalBit | value);
    return 1;
  }
  header[0] = kSignalBit | kLongSignalBit;
  header[1] = value;
  return 2;
}

// Encodes a size in the shortest form that holds it; returns the header's length.
std::size_t EncodeSize(unsigned char kind, std::uint32_t size, unsigned char* header) {
  if (size < kForm1Base) {
    header[0] = LeadByte(kind, 0, size);
    return 1;
  }
  if (size < kForm2Base) {
    const std::uint32_t stored = size - kForm1Base;
    header[0] = LeadByte(kind, 1, stored >> 8);
    header[1] = ByteOf(stored, 0);
    return 2;
  }
  if (size < kForm3Base) {
    header[0] = LeadByte(kind, 2, 0);
    header[1] = ByteOf(size, 8);
    header[2] = ByteOf(size, 0);
    return 3;
  }
  header[0] = LeadByte(kind, 3, 0);
  header[1] = ByteOf(size, 24);
  header[2] = ByteOf(size, 16);
  header[3] = ByteOf(size, 8);
  header[4] = ByteOf(size, 0);
  return 5;
}

// Encodes the header of a data or message-header frame.
std::size_t EncodeFrame(JCXXFrame& frame, unsigned char* header) {
  const unsigned char kind = frame.IsMsgHeaderFrame() ? kMsgHeaderBit : 0;
  return EncodeSize(kind, static_cast<std::uint32_t>(frame.GetSize()), header);
}

bool HasPayload(JCXXFrame& frame) { return frame.IsDataFrame() && !frame.data.empty(); }

bool ReadExactly(JCXXSock* psock, unsigned char* buf, std::size_t len) {
  std::size_t got = 0;
  return psock->ReadBlocking(buf, len, got) == 0 && got == len;
}

// Reads what the lead byte says must follow of the size.
bool ReadSize(JCXXSock* psock, unsigned char lead, std::uint32_t& size) {
  constexpr std::size_t kBytesAfterLead[] = {0, 1, 2, 4};
  const unsigned form = (lead >> kFormShift) & kFormMask;
  unsigned char rest[4];
  if (form != 0 && !ReadExactly(psock, rest, kBytesAfterLead[form])) {
    return false;
  }
  size = form <= 1 ? lead & kSizeMask : 0;
  for (std::size_t i = 0; i < kBytesAfterLead[form]; ++i) {
    size = size << 8 | rest[i];
  }
  if (form == 1) {
    size += kForm1Base;
  }
  return size <= JCXXFrame::kMaxSize;
}

JCXXFrame* ReadDataFrame(JCXXSock* psock, std::size_t size) {
  auto frame = std::make_unique<JCXXFrame>();
  frame->data.resize(size);
  if (size > 0 && !ReadExactly(psock, frame->GetData(), size)) {
    return nullptr;
  }
  return frame.release();
}

int WriteSignal(JCXXSock* psock, unsigned char value) {
  constexpr const char* kFunction = "WriteFrameToSock";
  unsigned char header[JCXXFrame::kMaxHeader];
  const std::size_t length = EncodeSignal(value, header);
  std::size_t written = 0;
  const int rc = psock->WriteBlocking(header, length, written);
  if (rc != 0) {
    if (length == 1) {
      JACTOR_ERROR_AS(kFunction, "WriteBlocking failed");
    } else {
      JACTOR_ERROR_AS(kFunction, "WriteBlocking failed 3");
    }
    return rc;
  }
  if (written != length) {
    if (length == 1) {
      JACTOR_ERROR_AS(kFunction, "WriteBlocking failed 2, waswritten=%zd", written);
    } else {
      JACTOR_ERROR_AS(kFunction, "WriteBlocking failed 4");
    }
    return -1;
  }
  return 0;
}

}  // namespace

JCXXFrame::JCXXFrame() : type(DATA_FRAME), msg_size(0), header{}, header_len(0) {
  JCXXActorAPI::GetInstance()->JCXXFramePtrAdd(this);
}

JCXXFrame::JCXXFrame(unsigned char value)
    : type(SIGNAL_FRAME), msg_size(0), data(1, value), header{}, header_len(0) {
  JCXXActorAPI::GetInstance()->JCXXFramePtrAdd(this);
}

JCXXFrame::JCXXFrame(unsigned int size)
    : type(MSG_HEADER_FRAME), msg_size(size), header{}, header_len(0) {
  if (size > kMaxSize) {
    throw std::bad_alloc();
  }
  JCXXActorAPI::GetInstance()->JCXXFramePtrAdd(this);
}

JCXXFrame::JCXXFrame(JCXXFrame const& /*other*/)
    : type(DATA_FRAME), msg_size(0), header{}, header_len(0) {
  JACTOR_TRACE("JCXXFrame copy constructor");
  JCXXActorAPI::GetInstance()->JCXXFramePtrAdd(this);
}

JCXXFrame& JCXXFrame::operator=(JCXXFrame const& other) {
  JACTOR_TRACE("JCXXFrame copy assignment operator");
  if (this != &other) {
    JCXXActorAPI::GetInstance()->JCXXFramePtrAdd(this);
  }
  return *this;
}

JCXXFrame::~JCXXFrame() { JCXXActorAPI::GetInstance()->JCXXFramePtrRemove(this); }

std::size_t JCXXFrame::GetSize() { return IsMsgHeaderFrame() ? msg_size : data.size(); }

unsigned char* JCXXFrame::GetData() { return data.empty() ? nullptr : data.data(); }

void JCXXFrame::SetSize(std::size_t n) { data.resize(n); }

void JCXXFrame::CopyIntoBuffer(unsigned char* src, std::size_t n) { data.assign(src, src + n); }

bool JCXXFrame::IsDataFrame() { return type == DATA_FRAME; }

bool JCXXFrame::IsMsgHeaderFrame() { return type == MSG_HEADER_FRAME; }

bool JCXXFrame::IsSignalFrame() { return type == SIGNAL_FRAME; }

int JCXXFrame::BuildHeaderInFive() {
  JACTOR_TRACE("BuildHeaderInFive");
  std::memset(header, 0, sizeof header);
  header_len = 0;
  if (!IsSignalFrame()) {
    header_len = EncodeFrame(*this, header);
    return 0;
  }
  if (data.size() != 1) {
    JACTOR_ERROR("not size 1");
    return -1;
  }
  header_len = EncodeSignal(data[0], header);
  return 0;
}

int JCXXFrame::FillWriteIOVs(iovec* piov, int n, int& used, std::size_t& total) {
  JACTOR_TRACE("FillWriteIOVs");
  if (piov == nullptr) {
    JACTOR_ERROR("FillWriteIOVs NULL pointer");
    return -1;
  }
  if (n < 2) {
    JACTOR_ERROR("FillWriteIOVs less than 2 iovs");
    return -1;
  }
  used = 0;
  total = 0;
  if (const int rc = BuildHeaderInFive(); rc != 0) {
    return rc;
  }
  piov[0] = {header, header_len};
  total = header_len;
  used = 1;
  JACTOR_TRACE("piov 0 len=%zd", piov[0].iov_len);
  JACTOR_TRACE("piov 0 base=0x%zx", reinterpret_cast<std::size_t>(piov[0].iov_base));
  if (HasPayload(*this)) {
    piov[1] = {GetData(), data.size()};
    total += data.size();
    used = 2;
    JACTOR_TRACE("piov 1 len=%zd", piov[1].iov_len);
    JACTOR_TRACE("piov 1 base=0x%zx", reinterpret_cast<std::size_t>(piov[1].iov_base));
  }
  return 0;
}

int JCXXFrame::WriteFrameToSock(JCXXSock* psock) {
  JACTOR_TRACE("WriteFrameToSock");
  if (psock == nullptr) {
    JACTOR_ERROR("WriteFrameToSock NULL pointer");
    return -1;
  }
  if (IsSignalFrame()) {
    if (data.size() != 1) {
      JACTOR_ERROR("not size 1");
      return -1;
    }
    return WriteSignal(psock, data[0]);
  }
  unsigned char own_header[kMaxHeader];
  iovec iov[2];
  iov[0] = {own_header, EncodeFrame(*this, own_header)};
  int count = 1;
  std::size_t expected = iov[0].iov_len;
  JACTOR_TRACE("iov 0 len=%zd", iov[0].iov_len);
  JACTOR_TRACE("iov 0 base=0x%zx", reinterpret_cast<std::size_t>(iov[0].iov_base));
  if (HasPayload(*this)) {
    iov[1] = {GetData(), data.size()};
    count = 2;
    expected += data.size();
    JACTOR_TRACE("iov 1 len=%zd", iov[1].iov_len);
    JACTOR_TRACE("iov 1 base=0x%zx", reinterpret_cast<std::size_t>(iov[1].iov_base));
  }
  JACTOR_TRACE("before WriteBlockingIOV");
  std::size_t written = 0;
  const int rc = psock->WriteBlockingIOV(iov, count, written);
  JACTOR_TRACE("after WriteBlockingIOV, irv=%d", rc);
  if (rc != 0) {
    return rc;
  }
  if (written != expected) {
    JACTOR_ERROR("size mismatch");
    return -1;
  }
  return 0;
}

int JCXXFrame::WriteFrameToSockNonBlocking(JCXXSock* psock) { return WriteFrameToSock(psock); }

JCXXFrame* JCXXFrame::ReadFrameFromSock(JCXXSock* psock) {
  if (psock == nullptr) {
    JACTOR_ERROR("psock is NULL");
    return nullptr;
  }
  unsigned char lead = 0;
  std::size_t got = 0;
  if (const int rc = psock->ReadBlocking(&lead, 1, got); rc != 0) {
    JACTOR_ERROR("irv=%d", rc);
    return nullptr;
  }
  if (got != 1) {
    return nullptr;
  }
  if ((lead & kSignalBit) == 0) {
    JACTOR_TRACE("frame or msg");
    std::uint32_t size = 0;
    if (!ReadSize(psock, lead, size)) {
      return nullptr;
    }
    return (lead & kMsgHeaderBit) != 0 ? new JCXXFrame(size) : ReadDataFrame(psock, size);
  }
  if ((lead & kLongSignalBit) == 0) {
    JACTOR_TRACE("signal 6");
    return new JCXXFrame(static_cast<unsigned char>(lead & kShortSignalMask));
  }
  JACTOR_TRACE(" default case signal 8");
  unsigned char value = 0;
  return ReadExactly(psock, &value, 1) ? new JCXXFrame(value) : nullptr;
}

JCXXFrame* JCXXFrame::ReadFrameFromSockNonBlocking(JCXXSock* psock) {
  return ReadFrameFromSock(psock);
}
