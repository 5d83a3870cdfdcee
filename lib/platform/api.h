/* Marks of the platform's C interface. */
#ifndef SHARESNAP_PLATFORM_API_H
#define SHARESNAP_PLATFORM_API_H

#if defined(__GNUC__)
#define QOVA_PLATFORM_API __attribute__((visibility("default")))
#define QOVA_SENTINEL __attribute__((sentinel))
#else
#define QOVA_PLATFORM_API
#define QOVA_SENTINEL
#endif

#ifdef __cplusplus
#define QOVA_BEGIN_DECLS extern "C" {
#define QOVA_END_DECLS }
#else
#define QOVA_BEGIN_DECLS
#define QOVA_END_DECLS
#endif

#endif
