// jcxxframe.cpp - the frame record, its wire header, and frames on a sock.
#include "jcxxframe.h"

#include <cstring>
#include <memory>
#include <new>

#include "jcxxactorapi.h"
#include "jcxxsock.h"
#include "log.h"
#include "reason.h"
#include "registry.h"
#include "wire.h"

namespace {

// Encodes the header of a data or message-header frame.
std::size_t EncodeFrame(JCXXFrame& frame, unsigned char* header) {
  const auto size = static_cast<std::uint32_t>(frame.GetSize());
  return wire::Encode({static_cast<wire::Kind>(frame.type), size}, header);
}

bool HasPayload(JCXXFrame& frame) { return frame.IsDataFrame() && !frame.data.empty(); }

// Reads the rest of a frame that has begun: the end of the stream before it is damage.
bool ReadExactly(JCXXSock* psock, unsigned char* buf, std::size_t len) {
  std::size_t got = 0;
  if (psock->ReadBlocking(buf, len, got) == 0 && got == len) {
    return true;
  }
  reason::EndIsDamage();
  return false;
}

// Reads the rest of the header, as the lead byte announces. Result: whether it arrived.
bool ReadHeader(JCXXSock* psock, unsigned char lead, wire::Header& header) {
  unsigned char bytes[wire::kMaxHeader] = {lead};
  const std::size_t more = wire::BytesAfterLead(lead);
  if (more != 0 && !ReadExactly(psock, bytes + 1, more)) {
    return false;
  }
  header = wire::Decode(bytes);
  return true;
}

JCXXFrame* ReadDataFrame(JCXXSock* psock, std::size_t size) {
  auto frame = registry::New<JCXXFrame>();
  frame->data.resize(size);
  if (size > 0 && !ReadExactly(psock, frame->GetData(), size)) {
    return nullptr;
  }
  return frame.release();
}

int WriteSignal(JCXXSock* psock, unsigned char value) {
  constexpr const char* kFunction = "WriteFrameToSock";
  unsigned char header[wire::kMaxHeader];
  const std::size_t length = wire::Encode({wire::Kind::kSignal, value}, header);
  std::size_t written = 0;
  registry::Signalling(psock);
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
    return reason::Fail(EIO);
  }
  return 0;
}

}  // namespace

JCXXFrame::JCXXFrame() : type(DATA_FRAME), msg_size(0), header{}, header_len(0) {
  registry::Api().JCXXFramePtrAdd(this);
}

JCXXFrame::JCXXFrame(unsigned char value)
    : type(SIGNAL_FRAME), msg_size(0), data(1, value), header{}, header_len(0) {
  registry::Api().JCXXFramePtrAdd(this);
}

JCXXFrame::JCXXFrame(unsigned int size)
    : type(MSG_HEADER_FRAME), msg_size(size), header{}, header_len(0) {
  if (size > kMaxSize) {
    reason::Fail(EMSGSIZE);
    throw std::bad_alloc();
  }
  registry::Api().JCXXFramePtrAdd(this);
}

JCXXFrame::JCXXFrame(JCXXFrame const& /*other*/)
    : type(DATA_FRAME), msg_size(0), header{}, header_len(0) {
  JACTOR_TRACE("JCXXFrame copy constructor");
  registry::Api().JCXXFramePtrAdd(this);
}

JCXXFrame& JCXXFrame::operator=(JCXXFrame const& other) {
  JACTOR_TRACE("JCXXFrame copy assignment operator");
  if (this != &other) {
    registry::Api().JCXXFramePtrAdd(this);
  }
  return *this;
}

JCXXFrame::~JCXXFrame() { registry::Api().JCXXFramePtrRemove(this); }

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
    return reason::Fail(EINVAL);
  }
  header_len = wire::Encode({wire::Kind::kSignal, data[0]}, header);
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
      return reason::Fail(EINVAL);
    }
    return WriteSignal(psock, data[0]);
  }
  unsigned char own_header[wire::kMaxHeader];
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
    return reason::Fail(EIO);
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
  const wire::Kind kind = wire::KindOf(lead);
  if (kind != wire::Kind::kSignal) {
    JACTOR_TRACE("frame or msg");
  } else if (wire::BytesAfterLead(lead) == 0) {
    JACTOR_TRACE("signal 6");
  } else {
    JACTOR_TRACE(" default case signal 8");
  }
  wire::Header header = {};
  if (!ReadHeader(psock, lead, header)) {
    return nullptr;
  }
  if (kind == wire::Kind::kSignal) {
    return registry::New<JCXXFrame>(static_cast<unsigned char>(header.number)).release();
  }
  if (header.number > kMaxSize) {
    reason::Fail(EBADMSG);
    return nullptr;
  }
  return kind == wire::Kind::kMsgHeader ? registry::New<JCXXFrame>(header.number).release()
                                        : ReadDataFrame(psock, header.number);
}

JCXXFrame* JCXXFrame::ReadFrameFromSockNonBlocking(JCXXSock* psock) {
  return ReadFrameFromSock(psock);
}
