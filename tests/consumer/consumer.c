/* A program of somebody else, in C, over an installed tree: some things of each subsystem, through the shared library.
 * It writes settings and claims where the library keeps them, so it runs in a sandbox. */
#include <sharesnap/platform/error.h>
#include <sharesnap/platform/szhash.h>
#include <sharesnap/platform/szlist.h>
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

/* The record of a share; its volume is mounted nowhere. */
static QOVASHARE Record(void) {
    static char szName[] = "docs";
    static char szPath[] = "/nowhere/docs";
    static char szNothing[] = "";
    QOVASHARE share = {0};
    share.szName = szName;
    share.szPath = szPath;
    share.szDesc = szNothing;
    share.szDenyList = szNothing;
    share.szRWList = szNothing;
    share.szROList = szNothing;
    return share;
}

static void Settings(void) {
    char szValue[16] = "";
    QLIBCSZLIST *pShares = QLIBCSzListAlloc(64);
    Check(QOVAShareSnapConfGet("docs", "local_time_format", szValue, sizeof(szValue)) == 0, "nothing is set at first");
    Check(QOVAShareSnapConfSet("docs", "local_time_format", "true") == 0, "a setting is written");
    Check(QOVAShareSnapConfGet("docs", "local_time_format", szValue, sizeof(szValue)) == 1, "and read");
    Check(strcmp(szValue, "true") == 0, "as it was written");
    Check(QOVAShareSnapConfUpdate("docs", "papers", NULL) == 0, "the share gets another name");
    Check(QOVAShareSnapConfEnumSection(&pShares) == 0 && pShares->nItem == 1, "there are settings of one share");
    Check(strcmp(QLIBCSzListGet(pShares, 0), "papers") == 0, "of the one with the new name");
    Check(QOVAShareSnapConfDeleteShare("papers") == 0, "the settings go with the share");
    Check(QOVAShareSnapConfGet("papers", "local_time_format", szValue, sizeof(szValue)) == 0, "and are gone");
    QLIBCSzListFree(pShares);
}

static void Claims(void) {
    const QOVASHARE share = Record();
    const char *szSnapshot = "GMT-2026.01.02-03.04.05";
    uint32_t uCount = 7;
    QLIBCSZLIST *pHolders = QLIBCSzListAlloc(64);
    Check(QOVAShareSnapSysLockGet(&share, szSnapshot, "backup", &uCount) == 1 && uCount == 0,
          "nobody claims it at first");
    Check(QOVAShareSnapSysLockIncrement(&share, szSnapshot, "backup") == 1, "a claim is made");
    Check(QOVAShareSnapSysLockIncrement(&share, szSnapshot, "backup") == 1, "and once more");
    Check(QOVAShareSnapSysLockGet(&share, szSnapshot, "backup", &uCount) == 1 && uCount == 2, "both count");
    Check(QOVAShareSnapSysLockInitiatorList(&share, szSnapshot, &pHolders) == 1 && pHolders->nItem == 1,
          "one claims it");
    Check(strcmp(QLIBCSzListGet(pHolders, 0), "backup") == 0, "by its name");
    Check(QOVAShareSnapSysLockDecrement(&share, szSnapshot, "backup") == 1, "a claim is dropped");
    Check(QOVAShareSnapSysLockGet(&share, szSnapshot, "backup", &uCount) == 1 && uCount == 1, "the other one stays");
    Check(ShareSnapSysLockShareDeleteHook("docs") == 0, "all claims end with the share");
    Check(QOVAShareSnapSysLockGet(&share, szSnapshot, "backup", &uCount) == 1 && uCount == 0, "and are gone");
    QLIBCSzListFree(pHolders);
}

/* Of a share without a volume nothing can be taken, listed or counted; each says so in its own way. */
static void WithoutAVolume(void) {
    const QOVASHARE share = Record();
    char szName[64] = "";
    QLIBCSZHASH *pAttributes = QLIBCSzHashAlloc(64);
    QLIBCErrSetEx(0, "consumer.c", __LINE__);
    Check(QOVAShareSnapCreate(&share, szName, sizeof(szName), &pAttributes) < 0, "no snapshot can be taken");
    Check(QLIBCErrGet() == SNAP_ERR_OPERATION_FAILED, "and a code says why");
    Check(ShareSnapSnapCountGet(&share, 0) < 0, "none can be counted");
    Check(0 < QOVAShareSnapMaximumGet(), "there is a limit all the same");
    QLIBCSzHashFree(pAttributes);
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
    Settings();
    Claims();
    WithoutAVolume();
    Refusals();
    if (failures == 0) {
        puts("consumer: good");
    }
    return failures == 0 ? 0 : 1;
}
