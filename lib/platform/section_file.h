/* Sectioned text files: "[name]" lines and "key=value" lines (libqovacore). None of these locks: the caller holds the
   lock of the file.

   The form. A header is '[' in column 0, the name runs to the last ']' of the line. A line that begins with '[' and is
   no header ends the section all the same. A pair is split at its first '='; nothing is trimmed. Lines that begin with
   ';' or '#' are comments: never pairs, and they outlive every rewrite. Other lines are passed over. Of a key that
   stands twice the last counts, of a section that stands twice the first. A line is a C string: it ends at a NUL byte.

   Nothing follows a symbolic link at the last component, and only regular files are read or replaced. Writers go
   through a temporary file beside the target ("<file>." and six letters) with the owner and mode of the target, one
   fsync and a rename: at any time the file is the old one or the new one. They need the right to write to the
   directory. A failing writer always sets errno and leaves the file as it was. What couldn't be read back is refused
   with 0x0D00 and EINVAL: a line feed in a name, key or value, an empty key, '=' in a key or '[', ';', '#' at its
   beginning, a name that is empty or longer than 1023 bytes. Of a section that stands twice a write leaves one.
   Codes of writers besides those below: 0x0900 (the file can't be opened), 0x0A00 (read), 0x0C00 (temporary file),
   0x0B00 (write), 0x2800 (rename), 0x0200 (memory). */
#ifndef SHARESNAP_PLATFORM_SECTION_FILE_H
#define SHARESNAP_PLATFORM_SECTION_FILE_H

#include <sharesnap/platform/api.h>
#include <sharesnap/platform/szhash.h>
#include <sharesnap/platform/szlist.h>
#include <stddef.h>

QOVA_BEGIN_DECLS

/* Puts the pairs of a section into the caller's hash, beside what it holds. The number of pairs; 0 for a section
   without pairs, and 0 with code 0x2200 for an absent section; -1 on failure (0x0900 for a file that can't be
   opened). */
QOVA_PLATFORM_API int QLIBCFileGetSection(const char *szFile, const char *szSection, QLIBCSZHASH **ppHash);

/* Copies one value, cut to cbBuf bytes with its end. 0; or -1 with 0x2200 (no section), 0x2000 (no key), 0x0900 (no
   file). Where the last file read has not changed since, only the section itself is read. */
QOVA_PLATFORM_API int QLIBCFileGetSectionValue(const char *szFile, const char *szSection, const char *szKey,
                                               char *szBuf, size_t cbBuf);

/* Writes one pair of an existing section, in the place of the key's old one or behind the last. 0; or -1 (0x2200: no
   section, nothing is created). */
QOVA_PLATFORM_API int QLIBCFileSetSectionValue(const char *szFile, const char *szSection, const char *szKey,
                                               const char *szValue);

/* Replaces the pairs of a section, and renames it when szNewSection isn't null. szFormat is "%s=%s\n" or null for the
   default form, which is the same. 1; or -1 (0x2200: absent section; 0x0800: the new name is taken). */
QOVA_PLATFORM_API int QLIBCFileSetSection(const char *szFile, const char *szSection, const char *szNewSection,
                                          const QLIBCSZHASH *pHash, const char *szFormat);

/* Appends a section behind the others; a missing file is made with mode 0644 and the umask. 1 added, 0 it exists and
   nothing changed, -1 on failure. */
QOVA_PLATFORM_API int QLIBCFileAddSection(const char *szFile, const char *szSection, const QLIBCSZHASH *pHash,
                                          const char *szFormat);

/* 1 removed, 0 absent (nothing is written), -1 on failure (also for a missing file). */
QOVA_PLATFORM_API int QLIBCFileRemoveSection(const char *szFile, const char *szSection);

/* Pushes all section names in file order, those without pairs too, each once. 0 or -1 (0x0900: no file). */
QOVA_PLATFORM_API int QLIBCFileEnumSection(const char *szFile, QLIBCSZLIST **ppList);

/* Flat file of key=value lines; blanks and one pair of quotes around key and value are trimmed, the last of equal keys
   counts, a link is followed. 1 found, the value cut to cbBuf bytes with its end; 0 absent (0x2000); -1 on failure
   (0x0900: no file). nFlags is 0. */
QOVA_PLATFORM_API int QLIBCFileGetKeyValue(const char *szFile, const char *szKey, char *szBuf, size_t cbBuf,
                                           int nFlags);

/* 1 when the line opens a section: '[' in column 0 and a later ']'. cbLine counts the bytes of the line. */
QOVA_PLATFORM_API int QLIBCIFileIsSection(const char *szLine, size_t cbLine);

/* 1 when the line opens the section of that name, else 0. */
QOVA_PLATFORM_API int QLIBCIFileMatchSection(const char *szLine, size_t cbLine, const char *szSection);

/* Copies the name between '[' and the last ']'. 0; -1 (0x0D00) when the line is no header or the buffer is too
   small. */
QOVA_PLATFORM_API int QLIBCFileParseSectionName(const char *szLine, char *szBuf, size_t cbBuf);

/* Splits at the first '=' and pushes key and value (without the line feed). 0; -1 (0x0D00) for a line that is no
   pair. */
QOVA_PLATFORM_API int QLIBCStrSepPair(const char *szLine, QLIBCSZLIST **ppList);

QOVA_END_DECLS
#endif
