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
    // been saved with room for many.
    void load_override(boost::serialization::collection_size_type &count) {
        this->Base::load_override(count);
        if (static_cast<std::uintmax_t>(count) > std::max<std::uintmax_t>(cbFile_, kMinimumLimit)) {
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

    [[noreturn]] static void refuse() {
        throw boost::archive::archive_exception(boost::archive::archive_exception::input_stream_error);
    }

    std::uintmax_t cbFile_;
};

} // namespace QovaSnapTree

#endif
