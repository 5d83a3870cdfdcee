#include "snaptree/snaptree_archive.h"

#include <boost/archive/detail/archive_serializer_map.hpp>
#include <boost/archive/impl/archive_serializer_map.ipp>
#include <boost/archive/impl/basic_binary_iarchive.ipp>
#include <boost/archive/impl/basic_binary_iprimitive.ipp>

// The archive library holds these for its own archives only.
namespace boost {
namespace archive {
template class detail::archive_serializer_map<QovaSnapTree::GuardedInputArchive>;
template class basic_binary_iprimitive<QovaSnapTree::GuardedInputArchive, char, std::char_traits<char>>;
template class basic_binary_iarchive<QovaSnapTree::GuardedInputArchive>;
template class binary_iarchive_impl<QovaSnapTree::GuardedInputArchive, char, std::char_traits<char>>;
} // namespace archive
} // namespace boost
