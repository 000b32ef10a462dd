#include <windows.h>

#include "app/process_job.h"

namespace tarnlift::app::processjob {

void* create(bool killOnClose) {
  HANDLE job = CreateJobObjectA(nullptr, nullptr);
  if (job == nullptr) return nullptr;
  if (killOnClose) {
    JOBOBJECT_EXTENDED_LIMIT_INFORMATION limits{};
    limits.BasicLimitInformation.LimitFlags = JOB_OBJECT_LIMIT_KILL_ON_JOB_CLOSE;
    SetInformationJobObject(job, JobObjectExtendedLimitInformation, &limits, sizeof limits);
  }
  return job;
}

void adoptAndResume(void* job, void* process, void* thread) {
  if (job != nullptr) AssignProcessToJobObject(static_cast<HANDLE>(job), static_cast<HANDLE>(process));
  ResumeThread(static_cast<HANDLE>(thread));
}

bool endAll(void* job, void* process, uint32_t waitMs) {
  bool ended = false;
  if (job != nullptr) ended = TerminateJobObject(static_cast<HANDLE>(job), 0) != 0;
  // A process outside any job (the system refused one) is ended alone.
  if (!ended && process != nullptr) ended = TerminateProcess(static_cast<HANDLE>(process), 0) != 0;
  if (process != nullptr) WaitForSingleObject(static_cast<HANDLE>(process), waitMs);
  return ended;
}

void close(void* job) {
  if (job != nullptr) CloseHandle(static_cast<HANDLE>(job));
}

}  // namespace tarnlift::app::processjob
