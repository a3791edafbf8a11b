#include "server/pam_login.h"

#include <dlfcn.h>
#include <pwd.h>
#include <security/pam_appl.h>

#include <cstdlib>
#include <cstring>
#include <memory>
#include <vector>

namespace kestondri {
namespace host {
namespace {

struct Credentials {
  const std::string* account;
  const std::string* password;
};

// Answers PAM's prompts: the password for hidden prompts, the account for
// visible ones; messages are ignored. PAM frees the answers.
int Converse(int count, const struct pam_message** messages, struct pam_response** responses,
             void* data) {
  if (count <= 0 || count > PAM_MAX_NUM_MSG) return PAM_CONV_ERR;
  const auto* credentials = static_cast<const Credentials*>(data);
  auto* answers = static_cast<pam_response*>(calloc(count, sizeof(pam_response)));
  if (!answers) return PAM_BUF_ERR;
  for (int i = 0; i < count; ++i) {
    const char* text = nullptr;
    switch (messages[i]->msg_style) {
      case PAM_PROMPT_ECHO_OFF:
        text = credentials->password->c_str();
        break;
      case PAM_PROMPT_ECHO_ON:
        text = credentials->account->c_str();
        break;
      case PAM_ERROR_MSG:
      case PAM_TEXT_INFO:
        continue;
      default:
        for (int j = 0; j < i; ++j) free(answers[j].resp);
        free(answers);
        return PAM_CONV_ERR;
    }
    answers[i].resp = strdup(text);
    if (!answers[i].resp) {
      for (int j = 0; j < i; ++j) free(answers[j].resp);
      free(answers);
      return PAM_BUF_ERR;
    }
  }
  *responses = answers;
  return PAM_SUCCESS;
}

void NoDelay(int, unsigned, void*) {}

// The PAM library is loaded by the login worker that needs it, never by the
// master: every library the master maps makes each of its forks dearer.
struct PamLibrary {
  decltype(&pam_start) start = nullptr;
  decltype(&pam_set_item) set_item = nullptr;
  decltype(&pam_get_item) get_item = nullptr;
  decltype(&pam_authenticate) authenticate = nullptr;
  decltype(&pam_acct_mgmt) acct_mgmt = nullptr;
  decltype(&pam_strerror) strerror = nullptr;
  decltype(&pam_end) end = nullptr;

  bool Load() {
    void* library = dlopen("libpam.so.0", RTLD_NOW | RTLD_LOCAL);
    if (!library) return false;
    return Find(library, "pam_start", &start) && Find(library, "pam_set_item", &set_item) &&
           Find(library, "pam_get_item", &get_item) &&
           Find(library, "pam_authenticate", &authenticate) &&
           Find(library, "pam_acct_mgmt", &acct_mgmt) && Find(library, "pam_strerror", &strerror) &&
           Find(library, "pam_end", &end);
  }

 private:
  template <typename Function>
  static bool Find(void* library, const char* name, Function* function) {
    *function = reinterpret_cast<Function>(dlsym(library, name));
    return *function != nullptr;
  }
};

}  // namespace

PamLoginResult PamLogin(const std::string& service, const std::string& account,
                        const std::string& password, uid_t min_uid) {
  PamLoginResult result;
  PamLibrary pam;
  if (!pam.Load()) {
    result.reason = "cannot load the PAM library";
    return result;
  }
  Credentials credentials{&account, &password};
  const struct pam_conv conversation = {Converse, &credentials};
  pam_handle_t* handle = nullptr;
  int status = pam.start(service.c_str(), account.c_str(), &conversation, &handle);
  if (status != PAM_SUCCESS) {
    result.reason = "pam_start failed";
    return result;
  }
  pam.set_item(handle, PAM_FAIL_DELAY, reinterpret_cast<const void*>(&NoDelay));
  status = pam.authenticate(handle, PAM_SILENT | PAM_DISALLOW_NULL_AUTHTOK);
  if (status == PAM_SUCCESS) status = pam.acct_mgmt(handle, PAM_SILENT | PAM_DISALLOW_NULL_AUTHTOK);
  if (status != PAM_SUCCESS) {
    result.reason = pam.strerror(handle, status);
  } else {
    const void* item = nullptr;
    const char* name = account.c_str();
    if (pam.get_item(handle, PAM_USER, &item) == PAM_SUCCESS && item) {
      name = static_cast<const char*>(item);
    }
    struct passwd entry;
    struct passwd* found = nullptr;
    std::vector<char> buffer(16384);
    if (getpwnam_r(name, &entry, buffer.data(), buffer.size(), &found) != 0 || !found) {
      result.reason = "no such user after authentication";
    } else if (found->pw_uid < min_uid) {
      result.reason = "system accounts may not sign in";
    } else {
      result.ok = true;
      result.user = found->pw_name;
      result.uid = found->pw_uid;
    }
  }
  pam.end(handle, status);
  return result;
}

}  // namespace host
}  // namespace kestondri
