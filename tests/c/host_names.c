/* A host with names of its own that clash with the short result codes: it hides them and uses
 * the prefixed ones. Compiling this file is the check; the function only ties it to the host. */
#define QOB_NO_SHORT_NAMES
enum HostStatus { SUCCESS = 1, FAILURE = 2 };
#define FILE_NOT_FOUND 404

#include <qob/qob_ext.h>

int HostNamesAgree(void) {
    return QOB_SUCCESS == 0 && QOB_FILE_NOT_FOUND == -1 && SUCCESS == 1 && FILE_NOT_FOUND == 404 &&
           QOBX_LastError(0) == QOB_SUCCESS;
}
