#include "blockstore/DirectoryDigest.h"

#include <cstring>

#include "utility/Endian.h"

namespace blockformat {
namespace bf = blockformat;

namespace {

// The bytes one directory block feeds to the directory digest, gathered
// into one buffer so that the digest takes them in one call: numbers as
// their little-endian bytes, texts up to their zero.
class DigestInput {
 public:
  void Number(std::uint32_t value) {
    tz::EncodeFixed32(at_, value);
    at_ += 4;
  }
  void Bytes(const void* data, std::size_t n) {
    std::memcpy(at_, data, n);
    at_ += n;
  }
  void Text(const char* text, std::uint32_t width) { Bytes(text, bf::FieldLength(text, width)); }
  const unsigned char* data() const { return buffer_; }
  unsigned size() const { return static_cast<unsigned>(at_ - buffer_); }

 private:
  // Every field at its full width, which no block exceeds.
  unsigned char buffer_[bf::kBlockSize + 64];
  unsigned char* at_ = buffer_;
};

}  // namespace

void FeedDirectoryDigest(MD5& md5, const DirBlock& block) {
  DigestInput in;
  in.Number(block.blockNumber);
  in.Bytes(&block.inUse, 1);
  in.Text(block.signature, bf::kSignatureSize);
  in.Number(block.nextBlock);
  for (const DirEntry& entry : block.entries) {
    in.Text(entry.name, DirEntry::kNameSize);
    in.Text(entry.created, DirEntry::kTimeSize);
    in.Text(entry.modified, DirEntry::kTimeSize);
    in.Number(entry.firstBlock);
    in.Number(entry.size);
  }
  in.Text(block.fileSignature, bf::kFileSignatureSize);
  in.Bytes(block.reserved, bf::kReservedSize);
  in.Bytes(block.passwordDigest, bf::kDigestSize);
  unsigned char flags[2];
  tz::EncodeFixed16(flags, block.flags);
  in.Bytes(flags, sizeof flags);
  md5.Update(in.data(), in.size());
}

}  // namespace blockformat
