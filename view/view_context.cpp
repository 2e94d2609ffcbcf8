#include "view/view_context.h"

PcdViewContext* PCD_NewViewContext(GtkWidget* toplevel, const PangoFontDescription* font) {
  if (!toplevel || !gtk_widget_get_realized(toplevel)) return nullptr;
  auto* context = new PcdViewContext();
  context->window = GDK_WINDOW(g_object_ref(gtk_widget_get_window(toplevel)));
  if (font) context->font = pango_font_description_copy(font);
  return context;
}

void PCD_DeleteViewContext(PcdViewContext* context) {
  if (!context) return;
  if (context->window) g_object_unref(context->window);
  if (context->font) pango_font_description_free(context->font);
  delete context;
}

void PCD_SetViewScales(PcdViewContext* context, int32_t volumeWidth) {
  if (!context) return;
  const float s = static_cast<float>(volumeWidth) / 256.0f;
  const float factors[kPcdViewScaleCount] = {1.5f, 1.0f, 1.0f, 0.5f, 2.0f, 3.0f, 4.0f};
  for (int i = 0; i < kPcdViewScaleCount; ++i) context->scales[i] = factors[i] * s;
}

