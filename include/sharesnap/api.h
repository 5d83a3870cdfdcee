/* What marks a declaration as part of the library's public interface. */
#ifndef SHARESNAP_API_H
#define SHARESNAP_API_H

/* The library hides everything but what is declared with this and named in its list of exported symbols. */
#define SHARESNAP_API __attribute__((visibility("default")))

#endif
