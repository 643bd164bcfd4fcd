// The paths of the files that sessions of a handle are writing, or that quota is deleting: nobody shares one.
// Threads: any. Locks: mutexFiles, a leaf.
#ifndef QUARRIN_STORAGE_WRITING_FILES_H
#define QUARRIN_STORAGE_WRITING_FILES_H

#include <memory>
#include <string>

#include "libquarrin/handle.h"

namespace libquarrin
{

/// Takes a path. False when somebody has it.
bool QN_WRITING_Claim(tagQN_HANDLER_S *pHandle, const std::string &strPath);

/// Gives a claimed path back.
void QN_WRITING_Release(tagQN_HANDLER_S *pHandle, const std::string &strPath);

/// How a claim ends. The path is borrowed.
struct tagQN_CLAIM_END_S
{
    tagQN_HANDLER_S *pHandle;
    void operator()(const std::string *pstrPath) const
    {
        QN_WRITING_Release(pHandle, *pstrPath);
    }
};

/// A claim that is given back at the end of the caller's block; empty when somebody has the path.
using QN_CLAIM = std::unique_ptr<const std::string, tagQN_CLAIM_END_S>;

/// Takes a path until the end of the caller's block; strPath must outlive it.
[[nodiscard]] inline QN_CLAIM QN_WRITING_ClaimScoped(tagQN_HANDLER_S *pHandle, const std::string &strPath)
{
    return QN_CLAIM(QN_WRITING_Claim(pHandle, strPath) ? &strPath : nullptr, tagQN_CLAIM_END_S{pHandle});
}

} // namespace libquarrin

#endif
