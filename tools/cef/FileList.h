// A list bound to a file that frees its stream with itself.
#pragma once

#include "PhoneHome/Bencode.h"

namespace cef {

// The library's list leaves its file stream to whoever bound it (the dictionary frees its own); cef binds
// top-level lists only through this class, so nothing is left behind.
class CFileList : public CBencodeList {
 public:
  using CBencodeList::CBencodeList;
  ~CFileList() override {
    delete m_pStream;
    m_pStream = nullptr;
  }
};

}  // namespace cef
