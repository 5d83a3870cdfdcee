/* A program of somebody else, in C, over an installed tree: one thing of each subsystem, through the shared library. */
#include <sharesnap/platform/error.h>
#include <sharesnap/platform/szhash.h>
#include <sharesnap/sharesnap.h>
#include <stdio.h>
#include <string.h>

static int failures;

static void Check(int blGood, const char *szWhat) {
    if (!blGood) {
        fprintf(stderr, "consumer.c: %s\n", szWhat);
        ++failures;
    }
}

/* A selector of the caller's own: lets pass what has the key that pData names. */
static int HasKey(const char *szSnapName, const QLIBCSZHASH *pHash, void *pData) {
    (void)szSnapName;
    return QLIBCSzHashGetValue(pHash, (const char *)pData) == NULL ? 1 : 0;
}

static void Names(void) {
    char szName[64] = "";
    time_t tTime = 0;
    Check(SnapNameGenerateByTime(szName, sizeof(szName), 1767323045, 0) == 0, "a name is made from a time");
    Check(strcmp(szName, "GMT-2026.01.02-03.04.05") == 0, "the name is that time");
    Check(QOVAShareSnapTimeGet(szName, &tTime) == 0 && tTime == 1767323045, "the name gives the time back");
}

static void Selectors(void) {
    char szKey[] = "desc";
    QOVAShareSnapEnum *pEnum = NULL;
    QLIBCSZHASH *pHash = QLIBCSzHashAlloc(64);
    Check(pHash != NULL, "a hash is made");
    Check(QOVAShareSnapSelectorAdd(&pEnum, HasKey, szKey) == 0 && pEnum != NULL, "a selector is added");
    Check(QOVAShareSnapProcessSelector("GMT-2026.01.02-03.04.05", pEnum, pHash) == 1, "without the key it is skipped");
    Check(QLIBCSzHashSetValue(&pHash, "desc", "before the move") == 0, "a pair is set");
    Check(QOVAShareSnapProcessSelector("GMT-2026.01.02-03.04.05", pEnum, pHash) == 0, "with the key it passes");
    QOVAShareSnapEnumFree(pEnum);
    QLIBCSzHashFree(pHash);
}

static void DefaultAttributes(void) {
    QLIBCSZHASH *pHash = QLIBCSzHashAlloc(64);
    Check(QOVAShareSnapDefaultAttr(&pHash) == 1, "defaults are added");
    const char *szHide = QLIBCSzHashGetValue(pHash, "hide");
    Check(szHide != NULL && strcmp(szHide, "false") == 0, "a new snapshot is visible");
    QLIBCSzHashFree(pHash);
}

/* Each of these is refused before anything is read; the code says why. */
static void Refusals(void) {
    uint32_t uCount = 0;
    char szValue[16];
    QLIBCErrSetEx(0, "consumer.c", __LINE__);
    Check(QOVAShareSnapSysLockGet(NULL, "GMT-2026.01.02-03.04.05", "backup", &uCount) < 0, "a lock needs a share");
    Check(QLIBCErrGet() == 0x0D00, "and the code says so");
    QLIBCErrSetEx(0, "consumer.c", __LINE__);
    Check(QOVAShareSnapConfGet(NULL, "local_time_format", szValue, sizeof(szValue)) < 0, "a setting needs a share");
    Check(QLIBCErrGet() == 0x0D00, "and the code says so");
    QLIBCErrSetEx(0, "consumer.c", __LINE__);
    Check(QOVAShareSnapCreate(NULL, szValue, sizeof(szValue), NULL) < 0, "a snapshot needs a share");
    Check(QLIBCErrGet() == 0x0D00, "and the code says so");
}

int main(void) {
    Names();
    Selectors();
    DefaultAttributes();
    Refusals();
    if (failures == 0) {
        puts("consumer: good");
    }
    return failures == 0 ? 0 : 1;
}
