// The archive layer of the tree file: what a node looks like in it, and an input archive that refuses lengths and
// counts which the file can't hold before any memory is asked for.
#ifndef SHARESNAP_SNAPTREE_SNAPTREE_ARCHIVE_H
#define SHARESNAP_SNAPTREE_SNAPTREE_ARCHIVE_H

#include <algorithm>
#include <boost/archive/archive_exception.hpp>
#include <boost/archive/binary_iarchive_impl.hpp>
#include <boost/archive/binary_oarchive.hpp>
#include <cstdint>
#include <istream>
#include <string>

namespace QovaSnapTree {

class GuardedInputArchive final
    : public boost::archive::binary_iarchive_impl<GuardedInputArchive, std::istream::char_type,
                                                  std::istream::traits_type> {
    using Base =
        boost::archive::binary_iarchive_impl<GuardedInputArchive, std::istream::char_type, std::istream::traits_type>;

public:
    // cbFile is the size of the whole file in bytes.
    GuardedInputArchive(std::istream &in, std::uintmax_t cbFile) : Base(in, 0), cbFile_(cbFile) { this->init(0); }

    template <class T>
    void load_override(T &value) {
        this->Base::load_override(value);
    }

    // Counts of elements, and in the old form of buckets. An element has at least one byte, but an empty table may have
    // been saved with room for many; all tables together were not, or a small file would take all memory.
    void load_override(boost::serialization::collection_size_type &count) {
        this->Base::load_override(count);
        const auto uCount = static_cast<std::uintmax_t>(count);
        if (uCount > std::max<std::uintmax_t>(cbFile_, kMinimumLimit)) {
            refuse();
        }
        uTotal_ += uCount;
        if (uTotal_ > 2 * kMinimumLimit + kCountsPerByte * cbFile_) {
            refuse();
        }
    }

    template <class T>
    void load(T &value) {
        this->Base::load(value);
    }

    void load(std::string &text) {
        std::size_t cb = 0;
        this->Base::load(cb);
        if (cb > cbFile_) {
            refuse();
        }
        text.resize(cb);
        if (cb > 0) {
            this->load_binary(&text[0], cb);
        }
    }

private:
    static constexpr std::uintmax_t kMinimumLimit = 1U << 20;
    // An empty table takes 20 bytes of the file and has a dozen buckets as a rule, an element of 28 bytes two or three.
    static constexpr std::uintmax_t kCountsPerByte = 16;

    [[noreturn]] static void refuse() {
        throw boost::archive::archive_exception(boost::archive::archive_exception::input_stream_error);
    }

    std::uintmax_t cbFile_;
    std::uintmax_t uTotal_ = 0;
};

} // namespace QovaSnapTree

#endif
