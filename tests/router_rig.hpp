#pragma once
// The HTTP router over a tree, without a socket: its document root and its
// users file in a folder of its own.
#include <memory>
#include <string_view>

#include "core/root.hpp"
#include "temp_dir.hpp"
#include "web/document_root.hpp"
#include "web/http_router.hpp"
#include "web/web_access.hpp"

struct RouterRig {
  RouterRig(std::unique_ptr<Root> tree, WebAccessSettings settings)
      : root(std::move(tree)),
        documents(dir.path().string()),
        access((dir.path() / "config/users").string(), std::move(settings)),
        router(*root, documents, access) {}
  HttpReply call(std::string_view method, std::string_view target, std::string_view body = {}) {
    return router.answer({method, target, body});
  }

  TempDir dir;
  std::unique_ptr<Root> root;
  DocumentRoot documents;
  WebAccess access;
  HttpRouter router;
};
