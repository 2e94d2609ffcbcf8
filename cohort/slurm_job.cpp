#include "cohort/slurm_job.h"

#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <cstring>

extern char** environ;

std::string CohortShellQuote(const std::string& word) {
  bool plain = !word.empty();
  for (char c : word)
    if (!(std::isalnum(static_cast<unsigned char>(c)) || std::strchr("/._-+=:,@%", c) != nullptr))
      plain = false;
  if (plain) return word;
  std::string quoted = "'";
  for (char c : word) quoted += c == '\'' ? std::string("'\\''") : std::string(1, c);
  return quoted + "'";
}

std::string FormatCohortSlurmScript(const CohortSlurmJob& job) {
  std::string command;
  for (const std::string& word : job.command) command += (command.empty() ? "" : " ") + CohortShellQuote(word);
  std::string s = "#!/bin/bash\n";
  s += "#SBATCH --job-name=" + CohortShellQuote(job.jobName) + "\n";
  s += "#SBATCH --array=0-" + std::to_string(job.subjects.empty() ? 0 : job.subjects.size() - 1) +
       (job.arrayLimit > 0 ? "%" + std::to_string(job.arrayLimit) : "") + "\n";
  s += "#SBATCH --ntasks=1\n#SBATCH --cpus-per-task=" + std::to_string(job.cpus) + "\n";
  if (job.memoryMb > 0) s += "#SBATCH --mem=" + std::to_string(job.memoryMb) + "M\n";
  if (job.timeMinutes > 0) s += "#SBATCH --time=" + std::to_string(job.timeMinutes) + "\n";
  s += "#SBATCH --output=" + CohortShellQuote(job.logDir + "/slurm-%A_%a.out") + "\n";
  s += "# One subject per array task. Each task runs the same participant unit as a serial\n"
       "# run: it locks its subject, works in a folder of its own and moves its outputs into\n"
       "# place only when complete, so tasks can be cancelled and resubmitted safely.\n";
  s += "set -u\nsubjects=(";
  for (const std::string& subject : job.subjects) s += " " + CohortShellQuote(subject);
  s += " )\nsubject=${subjects[$SLURM_ARRAY_TASK_ID]}\n";
  s += command + " --participant-label \"$subject\"\nstatus=$?\n";
  s += "# a process ended by a signal (out-of-memory kill, scancel) cannot say so itself\n";
  s += "if [ $status -gt 128 ]; then\n  " + command +
       " --participant-label \"$subject\" --record-signal $((status - 128))\nfi\nexit $status\n";
  return s;
}

std::string SubmitCohortSlurmScript(const std::string& scriptPath, std::string* problem) {
  int pipeFds[2];
  if (pipe(pipeFds) != 0) {
    *problem = "cannot create a pipe for sbatch";
    return {};
  }
  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  posix_spawn_file_actions_adddup2(&actions, pipeFds[1], 1);
  posix_spawn_file_actions_addclose(&actions, pipeFds[0]);
  std::string arg0 = "sbatch", arg1 = "--parsable", arg2 = scriptPath;
  char* argv[] = {arg0.data(), arg1.data(), arg2.data(), nullptr};
  pid_t pid;
  const int spawned = posix_spawnp(&pid, "sbatch", &actions, nullptr, argv, environ);
  posix_spawn_file_actions_destroy(&actions);
  close(pipeFds[1]);
  if (spawned != 0) {
    close(pipeFds[0]);
    *problem = "cannot run sbatch: " + std::string(std::strerror(spawned));
    return {};
  }
  std::string output;
  char buffer[256];
  ssize_t got;
  while ((got = read(pipeFds[0], buffer, sizeof buffer)) > 0 || (got < 0 && errno == EINTR))
    if (got > 0 && output.size() < 4096) output.append(buffer, static_cast<size_t>(got));
  close(pipeFds[0]);
  int status = 0;
  while (waitpid(pid, &status, 0) < 0 && errno == EINTR) {
  }
  if (!WIFEXITED(status) || WEXITSTATUS(status) != 0) {
    *problem = "sbatch refused the job (status " + std::to_string(WIFEXITED(status) ? WEXITSTATUS(status) : -1) + ")";
    return {};
  }
  // --parsable prints "jobid" or "jobid;cluster"
  const size_t end = output.find_first_of(";\n");
  std::string id = output.substr(0, end);
  if (id.empty()) *problem = "sbatch printed no job id";
  return id;
}
