#include "app/services/menu.h"

#include <cstdio>
#include <cstring>
#include <map>

namespace {

struct MenuClosure {
  PcdMenuCallback callback;
  gpointer data;
  guint action;
};

void on_menu_activate(GtkMenuItem* item, gpointer user) {
  auto* c = static_cast<MenuClosure*>(user);
  c->callback(c->data, c->action, GTK_WIDGET(item));
}

void free_closure(gpointer user, GClosure*) { delete static_cast<MenuClosure*>(user); }

// Splits "/a/b/c" into parent "/a/b" and label "c". The root's parent is "".
void split_path(const std::string& path, std::string* parent, std::string* label) {
  size_t slash = path.rfind('/');
  if (slash == std::string::npos) {
    parent->clear();
    *label = path;
    return;
  }
  *parent = path.substr(0, slash);
  *label = path.substr(slash + 1);
}

class Builder {
 public:
  Builder(gpointer data, GtkAccelGroup* accel, PcdMenuBar* out)
      : data_(data), accel_(accel), out_(out) {
    out_->bar = gtk_menu_bar_new();
    shells_[""] = GTK_MENU_SHELL(out_->bar);
  }

  bool add(const PcdMenuEntry& e) {
    std::string raw = e.path ? e.path : "";
    std::string raw_parent, label;
    split_path(raw, &raw_parent, &label);
    GtkMenuShell* parent = shell_for(raw_parent);
    if (!parent) {
      std::fprintf(stderr, "Warning: no parent for menu entry %s\n", raw.c_str());
      return false;
    }
    GtkWidget* item = make_item(e, label);
    if (!item) return false;
    gtk_menu_shell_append(parent, item);
    gtk_widget_show(item);
    if (e.kind == PcdMenuKind::Branch || e.kind == PcdMenuKind::LastBranch) {
      attach_submenu(item, PCD_MenuPathWithoutMnemonics(raw.c_str()));
    }
    add_accelerator(item, e.accelerator);
    if (e.callback && e.kind != PcdMenuKind::Separator) {
      auto* c = new MenuClosure{e.callback, data_, e.action};
      g_signal_connect_data(item, "activate", G_CALLBACK(on_menu_activate), c, free_closure,
                            GConnectFlags(0));
    }
    out_->paths.push_back(PCD_MenuPathWithoutMnemonics(raw.c_str()));
    out_->items.push_back(item);
    return true;
  }

 private:
  // The submenu for a path, creating the implicit branches on the way.
  GtkMenuShell* shell_for(const std::string& raw_path) {
    std::string key = PCD_MenuPathWithoutMnemonics(raw_path.c_str());
    auto found = shells_.find(key);
    if (found != shells_.end()) return found->second;
    std::string raw_parent, label;
    split_path(raw_path, &raw_parent, &label);
    if (raw_path.empty() || label.empty()) return nullptr;
    GtkMenuShell* parent = shell_for(raw_parent);
    if (!parent) return nullptr;
    GtkWidget* item = gtk_menu_item_new_with_mnemonic(label.c_str());
    gtk_menu_shell_append(parent, item);
    gtk_widget_show(item);
    return attach_submenu(item, key);
  }

  GtkMenuShell* attach_submenu(GtkWidget* item, const std::string& key) {
    GtkWidget* menu = gtk_menu_new();
    if (accel_) gtk_menu_set_accel_group(GTK_MENU(menu), accel_);
    gtk_menu_item_set_submenu(GTK_MENU_ITEM(item), menu);
    shells_[key] = GTK_MENU_SHELL(menu);
    return GTK_MENU_SHELL(menu);
  }

  GtkWidget* make_item(const PcdMenuEntry& e, const std::string& label) {
    switch (e.kind) {
      case PcdMenuKind::Separator:
        return gtk_separator_menu_item_new();
      case PcdMenuKind::RadioHead: {
        GtkWidget* item = gtk_radio_menu_item_new_with_mnemonic(nullptr, label.c_str());
        radio_heads_[PCD_MenuPathWithoutMnemonics(e.path)] = item;
        return item;
      }
      case PcdMenuKind::RadioItem: {
        auto head = radio_heads_.find(PCD_MenuPathWithoutMnemonics(e.group ? e.group : ""));
        if (head == radio_heads_.end()) {
          std::fprintf(stderr, "Warning: no radio group for menu entry %s\n", e.path);
          return nullptr;
        }
        return gtk_radio_menu_item_new_with_mnemonic_from_widget(
            GTK_RADIO_MENU_ITEM(head->second), label.c_str());
      }
      case PcdMenuKind::LastBranch: {
        GtkWidget* item = gtk_menu_item_new_with_mnemonic(label.c_str());
        // The toolkit still honours this for menu bars; there is no replacement.
        G_GNUC_BEGIN_IGNORE_DEPRECATIONS
        gtk_menu_item_set_right_justified(GTK_MENU_ITEM(item), TRUE);
        G_GNUC_END_IGNORE_DEPRECATIONS
        return item;
      }
      case PcdMenuKind::Branch:
      case PcdMenuKind::Item:
        break;
    }
    return gtk_menu_item_new_with_mnemonic(label.c_str());
  }

  void add_accelerator(GtkWidget* item, const char* accelerator) {
    if (!accel_ || !accelerator || !*accelerator) return;
    guint key = 0;
    GdkModifierType mods = GdkModifierType(0);
    gtk_accelerator_parse(accelerator, &key, &mods);
    if (key == 0) {
      std::fprintf(stderr, "Warning: bad accelerator %s\n", accelerator);
      return;
    }
    gtk_widget_add_accelerator(item, "activate", accel_, key, mods, GTK_ACCEL_VISIBLE);
  }

  gpointer data_;
  GtkAccelGroup* accel_;
  PcdMenuBar* out_;
  std::map<std::string, GtkMenuShell*> shells_;
  std::map<std::string, GtkWidget*> radio_heads_;
};

}  // namespace

std::string PCD_MenuPathWithoutMnemonics(const char* path) {
  std::string out;
  if (!path) return out;
  for (const char* p = path; *p; ++p) {
    if (*p == '_') {
      if (p[1] == '_') {
        out += '_';
        ++p;
      }
      continue;
    }
    out += *p;
  }
  return out;
}

bool PCD_BuildMenuBar(const PcdMenuEntry* entries, int count, gpointer callbackData,
                      GtkAccelGroup* accelGroup, PcdMenuBar* out) {
  *out = PcdMenuBar{};
  Builder builder(callbackData, accelGroup, out);
  for (int i = 0; i < count; ++i) {
    if (!builder.add(entries[i])) return false;
  }
  return true;
}

GtkWidget* PCD_FindMenuItem(const PcdMenuBar& menu, const char* path) {
  for (size_t i = 0; i < menu.paths.size(); ++i) {
    if (menu.paths[i] == path) return menu.items[i];
  }
  return nullptr;
}
