#include "platform/webkit/toolbar_face.h"

#include <gdk/gdk.h>
#include <pango/pangocairo.h>
#include <poppler.h>

#include <algorithm>
#include <cmath>
#include <cstdio>

#include "platform/webkit/webkit_toolbar_item.h"

namespace appex::webkit {
namespace {

constexpr double kMargin = 2;
constexpr double kIconTop = 4;         // room for the badge above the icon
constexpr double kBadgeHeight = 12;
constexpr double kBadgeMinWidth = 12;
constexpr double kBadgePadding = 3;    // each side of the text
constexpr double kBadgeLeft = 9;       // from the icon's left edge
constexpr double kBadgeRise = 3;       // above the icon's top edge
constexpr double kLabelGap = 2;
constexpr double kBadgeFontSize = 9;   // in points, bold
constexpr double kLabelFontSize = 10;

struct Rgb {
  double r, g, b;
};
constexpr Rgb kBadgeEnabled{0.90, 0.22, 0.21};
constexpr Rgb kBadgeDisabled{0.56, 0.56, 0.58};
constexpr Rgb kLabelEnabled{0.2, 0.2, 0.2};
constexpr Rgb kLabelDisabled{0.6, 0.6, 0.6};
constexpr Rgb kToolbarBackground{0.93, 0.93, 0.93};

bool isPdf(const std::string& path) {
  FILE* file = std::fopen(path.c_str(), "rb");
  if (!file) return false;
  char head[5] = {};
  const bool pdf = std::fread(head, 1, sizeof head, file) == sizeof head && std::string(head, 5) == "%PDF-";
  std::fclose(file);
  return pdf;
}

cairo_surface_t* blankIcon(int scale) {
  const int side = kToolbarIconPoints * scale;
  cairo_surface_t* surface = cairo_image_surface_create(CAIRO_FORMAT_ARGB32, side, side);
  cairo_surface_set_device_scale(surface, scale, scale);
  return surface;
}

// The first page of a PDF document, fitted into the icon square.
cairo_surface_t* renderPdf(const std::string& path, int scale) {
  GError* error = nullptr;
  gchar* uri = g_filename_to_uri(path.c_str(), nullptr, &error);
  if (!uri) {
    g_clear_error(&error);
    return nullptr;
  }
  PopplerDocument* document = poppler_document_new_from_file(uri, nullptr, &error);
  g_free(uri);
  if (!document) {
    g_clear_error(&error);
    return nullptr;
  }
  PopplerPage* page = poppler_document_get_n_pages(document) > 0 ? poppler_document_get_page(document, 0) : nullptr;
  cairo_surface_t* surface = nullptr;
  double width = 0;
  double height = 0;
  if (page) poppler_page_get_size(page, &width, &height);
  if (page && width > 0 && height > 0) {
    surface = blankIcon(scale);
    cairo_t* cr = cairo_create(surface);
    const double fit = kToolbarIconPoints / std::max(width, height);
    cairo_translate(cr, (kToolbarIconPoints - width * fit) / 2, (kToolbarIconPoints - height * fit) / 2);
    cairo_scale(cr, fit, fit);
    poppler_page_render(page, cr);
    cairo_destroy(cr);
  }
  if (page) g_object_unref(page);
  g_object_unref(document);
  return surface;
}

// A bitmap or SVG file, decoded at the icon's pixel size.
cairo_surface_t* renderPixbuf(const std::string& path, int scale) {
  const int side = kToolbarIconPoints * scale;
  GdkPixbuf* pixbuf = gdk_pixbuf_new_from_file_at_scale(path.c_str(), side, side, TRUE, nullptr);
  if (!pixbuf) return nullptr;
  cairo_surface_t* surface = blankIcon(scale);
  cairo_t* cr = cairo_create(surface);
  cairo_scale(cr, 1.0 / scale, 1.0 / scale);  // pixel coordinates
  gdk_cairo_set_source_pixbuf(cr, pixbuf, (side - gdk_pixbuf_get_width(pixbuf)) / 2.0,
                              (side - gdk_pixbuf_get_height(pixbuf)) / 2.0);
  cairo_paint(cr);
  cairo_destroy(cr);
  g_object_unref(pixbuf);
  return surface;
}

PangoLayout* textLayout(cairo_t* cr, const std::string& text, double size, bool bold) {
  PangoLayout* layout = pango_cairo_create_layout(cr);
  PangoFontDescription* font = pango_font_description_from_string("Sans");
  pango_font_description_set_absolute_size(font, size * PANGO_SCALE);
  if (bold) pango_font_description_set_weight(font, PANGO_WEIGHT_BOLD);
  pango_layout_set_font_description(layout, font);
  pango_font_description_free(font);
  pango_layout_set_text(layout, text.c_str(), static_cast<int>(text.size()));
  return layout;
}

// Where the parts of a face go, in points.
struct Layout {
  double width = 0;
  double height = 0;
  double iconX = 0;
  double badgeWidth = 0;
  double badgeTextWidth = 0;
  double labelWidth = 0;
  double labelHeight = 0;
};

Layout layOut(cairo_t* cr, const ToolbarFace& face) {
  Layout out;
  const bool hasBadge = face.badgeText && !face.badgeText->empty();
  const bool hasLabel = face.label && !face.label->empty();
  if (hasBadge) {
    PangoLayout* layout = textLayout(cr, *face.badgeText, kBadgeFontSize, true);
    int w = 0;
    pango_layout_get_pixel_size(layout, &w, nullptr);
    g_object_unref(layout);
    out.badgeTextWidth = w;
    out.badgeWidth = std::max(kBadgeMinWidth, w + 2 * kBadgePadding);
  }
  if (hasLabel) {
    PangoLayout* layout = textLayout(cr, *face.label, kLabelFontSize, false);
    int w = 0;
    int h = 0;
    pango_layout_get_pixel_size(layout, &w, &h);
    g_object_unref(layout);
    out.labelWidth = w;
    out.labelHeight = h;
  }
  // The icon with its badge, from the icon's left edge.
  const double iconSpan = std::max<double>(kToolbarIconPoints, hasBadge ? kBadgeLeft + out.badgeWidth : 0);
  out.width = std::ceil(std::max(iconSpan, out.labelWidth) + 2 * kMargin);
  out.iconX = std::floor(std::min((out.width - kToolbarIconPoints) / 2, out.width - kMargin - iconSpan));
  out.height = std::ceil(kIconTop + kToolbarIconPoints + kMargin + (hasLabel ? kLabelGap + out.labelHeight : 0));
  return out;
}

void roundedRect(cairo_t* cr, double x, double y, double w, double h, double radius) {
  cairo_new_sub_path(cr);
  cairo_arc(cr, x + w - radius, y + radius, radius, -M_PI / 2, 0);
  cairo_arc(cr, x + w - radius, y + h - radius, radius, 0, M_PI / 2);
  cairo_arc(cr, x + radius, y + h - radius, radius, M_PI / 2, M_PI);
  cairo_arc(cr, x + radius, y + radius, radius, M_PI, 3 * M_PI / 2);
  cairo_close_path(cr);
}

void setColor(cairo_t* cr, Rgb c) { cairo_set_source_rgb(cr, c.r, c.g, c.b); }

}  // namespace

ToolbarFace ToolbarFace::of(const WebKitToolbarItem& item) {
  auto image = item.image();
  return ToolbarFace{image ? std::optional<std::string>(image->path) : std::nullopt, item.badgeText(), item.label(),
                     item.isEnabled()};
}

cairo_surface_t* renderToolbarIcon(const std::string& path, int scale) {
  scale = std::clamp(scale, 1, 4);
  return isPdf(path) ? renderPdf(path, scale) : renderPixbuf(path, scale);
}

PixelSize toolbarFaceSize(const ToolbarFace& face) {
  cairo_surface_t* scratch = cairo_image_surface_create(CAIRO_FORMAT_ARGB32, 1, 1);
  cairo_t* cr = cairo_create(scratch);
  const Layout layout = layOut(cr, face);
  cairo_destroy(cr);
  cairo_surface_destroy(scratch);
  return {static_cast<int>(layout.width), static_cast<int>(layout.height)};
}

void drawToolbarFace(cairo_t* cr, const ToolbarFace& face, cairo_surface_t* icon) {
  const Layout layout = layOut(cr, face);
  cairo_save(cr);
  // The icon, dimmed while the button is disabled.
  const double alpha = face.enabled ? 1.0 : 0.4;
  if (icon) {
    cairo_set_source_surface(cr, icon, layout.iconX, kIconTop);
    cairo_paint_with_alpha(cr, alpha);
  } else {
    // No icon to show: an outlined square where it would be.
    roundedRect(cr, layout.iconX + 1.5, kIconTop + 1.5, kToolbarIconPoints - 3, kToolbarIconPoints - 3, 3);
    cairo_set_source_rgba(cr, 0.4, 0.4, 0.4, alpha);
    cairo_set_line_width(cr, 1.5);
    cairo_stroke(cr);
  }
  if (face.badgeText && !face.badgeText->empty()) {
    const double x = layout.iconX + kBadgeLeft;
    const double y = kIconTop - kBadgeRise;
    roundedRect(cr, x, y, layout.badgeWidth, kBadgeHeight, kBadgeHeight / 2);
    setColor(cr, face.enabled ? kBadgeEnabled : kBadgeDisabled);
    cairo_fill(cr);
    PangoLayout* text = textLayout(cr, *face.badgeText, kBadgeFontSize, true);
    int textHeight = 0;
    pango_layout_get_pixel_size(text, nullptr, &textHeight);
    cairo_move_to(cr, x + (layout.badgeWidth - layout.badgeTextWidth) / 2, y + (kBadgeHeight - textHeight) / 2);
    cairo_set_source_rgb(cr, 1, 1, 1);
    pango_cairo_show_layout(cr, text);
    g_object_unref(text);
  }
  if (face.label && !face.label->empty()) {
    PangoLayout* text = textLayout(cr, *face.label, kLabelFontSize, false);
    cairo_move_to(cr, (layout.width - layout.labelWidth) / 2, kIconTop + kToolbarIconPoints + kLabelGap);
    setColor(cr, face.enabled ? kLabelEnabled : kLabelDisabled);
    pango_cairo_show_layout(cr, text);
    g_object_unref(text);
  }
  cairo_restore(cr);
}

std::expected<PixelSize, std::string> writeToolbarPNG(const ToolbarFace& face, int scale, const std::string& pngPath) {
  scale = std::clamp(scale, 1, 4);
  const PixelSize points = toolbarFaceSize(face);
  const PixelSize pixels{points.width * scale, points.height * scale};
  cairo_surface_t* surface = cairo_image_surface_create(CAIRO_FORMAT_ARGB32, pixels.width, pixels.height);
  cairo_surface_set_device_scale(surface, scale, scale);
  cairo_t* cr = cairo_create(surface);
  setColor(cr, kToolbarBackground);
  cairo_paint(cr);
  cairo_surface_t* icon = face.imagePath ? renderToolbarIcon(*face.imagePath, scale) : nullptr;
  drawToolbarFace(cr, face, icon);
  if (icon) cairo_surface_destroy(icon);
  cairo_destroy(cr);
  const cairo_status_t status = cairo_surface_write_to_png(surface, pngPath.c_str());
  cairo_surface_destroy(surface);
  if (status != CAIRO_STATUS_SUCCESS) {
    return std::unexpected("cannot write " + pngPath + ": " + cairo_status_to_string(status));
  }
  return pixels;
}

}  // namespace appex::webkit
