// The `file` provider: the sectioned file /etc/sharesnap/shares.conf, one section a share.
//
//   [docs]
//   path=/vol1/docs
//   comment=Papers of all departments
//   invalid users=guest
//   write list=alice,@staff
//   read list=bob
//   browseable=yes
//   sharesnap:ftp_privilege=0
//   sharesnap:status=0x02          an encrypted share
//   sharesnap:forbidden=no         written by administrators only; absent: no
//   sharesnap:location=1           likewise; absent: 1, a local share
//
// The names are those of smb.conf where it has a word for the thing. Keys are read without regard to case, and a line
// that is written with blanks around its '=' is read as in smb.conf, without them.
//
// Writers put a whole new file in the place of the old one, under a lock of their own. So readers need no lock, always
// see one whole generation of the file, and never find it busy.
#ifndef SHARESNAP_PLATFORM_QOVASDK_SHARE_FILE_PROVIDER_H
#define SHARESNAP_PLATFORM_QOVASDK_SHARE_FILE_PROVIDER_H

#include "qovasdk/share_provider.h"

namespace QovaPlatform {

class ShareFileProvider final : public ShareProvider {
public:
    [[nodiscard]] bool fetch(const std::string &name, ShareEntry *entry) override;
    [[nodiscard]] bool fetchAll(std::vector<ShareEntry> *entries) override;
    [[nodiscard]] bool add(const ShareEntry &entry) override;
    [[nodiscard]] bool replace(const ShareEntry &entry) override;
    [[nodiscard]] bool rename(const std::string &name, const std::string &newName) override;
    [[nodiscard]] bool remove(const std::string &name) override;
};

} // namespace QovaPlatform

#endif
