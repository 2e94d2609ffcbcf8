#include "app/services/app_state.h"

#include <new>

PcdAppState* pcd_app = nullptr;

PcdAppState* PCD_NewAppState() {
  pcd_app = new (std::nothrow) PcdAppState();
  return pcd_app;
}

void PCD_DeleteAppState() {
  if (!pcd_app) return;
  if (pcd_app->textFont) pango_font_description_free(pcd_app->textFont);
  delete pcd_app;
  pcd_app = nullptr;
}

bool PCD_MpgReady() { return pcd_app && pcd_app->session.dti && pcd_app->session.dti->isReady == 1; }
