/* Marks of the library's public interface. */
#ifndef SHARESNAP_API_H
#define SHARESNAP_API_H

#if defined(__GNUC__)
#define SHARESNAP_API __attribute__((visibility("default")))
#else
#define SHARESNAP_API
#endif

#ifdef __cplusplus
#define SHARESNAP_BEGIN_DECLS extern "C" {
#define SHARESNAP_END_DECLS }
#else
#define SHARESNAP_BEGIN_DECLS
#define SHARESNAP_END_DECLS
#endif

#endif
