#include "backend/api_response.h"

#include "backend/json_fields.h"

namespace norvik {

using json_fields::Fields;

namespace {

RoutingServiceConfig decodeRoutingService(const Fields& f) {
  RoutingServiceConfig s;
  f.requiredText("key", s.key);
  f.text("title", s.title);
  f.text("subtitle", s.subtitle);
  f.text("icon", s.icon);
  f.text("icon_url", s.iconURL);
  f.text("color", s.color);
  f.text("group", s.group);
  f.boolean("default_on", s.defaultOn);
  f.boolean("has_list", s.hasList);
  f.texts("cidr", s.cidr);
  f.texts("domains", s.domains);
  f.boolean("enabled", s.enabled);
  return s;
}

RoutingConfig decodeRouting(const Fields& f) {
  RoutingConfig r;
  f.boolean("enabled", r.enabled);
  f.boolean("show_mode_tab", r.showModeTab);
  f.integers("allowed_modes", r.allowedModes);
  f.integer("forced_mode", r.forcedMode);
  f.integer("default_mode", r.defaultMode);
  f.text("disclaimer", r.disclaimer);
  f.boolean("kill_switch", r.killSwitch);
  f.boolean("allow_custom_domain", r.allowCustomDomain);
  f.boolean("show_dns_hint", r.showDnsHint);
  f.text("lists_version", r.listsVersion);
  f.text("full_mode_alert_title", r.fullModeAlertTitle);
  f.text("full_mode_alert_message", r.fullModeAlertMessage);
  f.text("full_mode_alert_confirm", r.fullModeAlertConfirm);
  f.text("full_mode_alert_cancel", r.fullModeAlertCancel);
  f.lenientList("services", r.services, &decodeRoutingService);
  f.boolean("on_demand_enabled", r.onDemandEnabled);
  f.boolean("full_mode_light_datapath", r.fullModeLightDatapath);
  f.boolean("relay_harden_enabled", r.relayHardenEnabled);
  f.integer("extension_mem_limit_mb", r.extensionMemLimitMb);
  return r;
}

MigrationConfig decodeMigration(const Fields& f) {
  MigrationConfig m;
  f.boolean("enabled", m.enabled);
  f.text("title", m.title);
  f.text("text", m.text);
  f.text("button", m.button);
  f.text("link", m.link);
  f.text("dismiss", m.dismiss);
  f.text("mode", m.mode);
  f.text("code", m.code);
  f.integer("delay_hours", m.delayHours);
  f.integer("max_shows", m.maxShows);
  f.integer("interval_min", m.intervalMin);
  f.text("code_button", m.codeButton);
  f.integer("code_poll_sec", m.codePollSec);
  f.text("step1_title", m.step1Title);
  f.text("step2_title", m.step2Title);
  f.text("step3_title", m.step3Title);
  f.text("id_caption", m.idCaption);
  f.text("code_hint", m.codeHint);
  f.text("code_caption", m.codeCaption);
  return m;
}

HomeOfferConfig decodeHomeOffer(const Fields& f) {
  HomeOfferConfig h;
  f.boolean("enabled", h.enabled);
  f.text("title", h.title);
  f.array("benefits", h.benefits);
  f.text("cta", h.cta);
  f.text("status", h.status);
  f.text("trust", h.trust);
  f.text("title_expired", h.titleExpired);
  f.text("cta_expired", h.ctaExpired);
  f.text("price_line", h.priceLine);
  f.text("terms_year", h.termsYear);
  f.text("terms_year_only", h.termsYearOnly);
  f.text("terms_generic", h.termsGeneric);
  return h;
}

MainConfig decodeMain(const Fields& f) {
  MainConfig m;
  f.boolean("is_active", m.isActive);
  f.text("switch", m.switchState);
  f.text("main_text", m.mainText);
  f.text("main_title", m.mainTitle);
  f.text("btn_type", m.buttonType);
  f.text("btn_text", m.buttonText);
  f.text("btn_link", m.buttonLink);
  f.text("alert_message", m.alertMessage);
  f.text("key_data", m.keyData);
  f.text("key_ip", m.keyIP);
  f.text("activation", m.activation);
  f.integer("cancel_type", m.deactivateType);
  f.integer("tg_type", m.telegramType);
  f.boolean("custom_btn_hidden", m.customButtonHidden);
  f.text("link_support", m.linkSupport);
  f.text("link_tg", m.linkTelegram);
  f.text("link_terms", m.linkTerms);
  f.text("link_app", m.linkApp);
  f.text("link_domain", m.mainDomain);
  f.text("link_share", m.linkShare);
  f.boolean("show_company", m.showCompany);
  f.boolean("move_button", m.moveButton);
  f.nested("migration", m.migration, &decodeMigration);
  f.nested("home_offer", m.homeOffer, &decodeHomeOffer);
  f.text("geoip_version", m.geoipVersion);
  f.boolean("geop", m.geoBypassEnabled);
  f.boolean("geo_bypass_enabled", m.geoBypassEnabledLegacy);
  f.boolean("sub_active", m.subActive);
  f.integer("sub_expire_ts", m.subExpireTs);
  f.integer("server_time", m.serverTime);
  f.boolean("server_change_auto_reconnect", m.serverChangeAutoReconnect);
  f.object("smart_status", m.smartStatus);
  f.integer("sub_card_auto_collapse_days", m.subCardAutoCollapseDays);
  f.boolean("sub_card_collapsed_default", m.subCardCollapsedDefault);
  f.boolean("iosFixedEnable", m.iosFixedEnable);
  f.object("iosFixes", m.iosFixes);
  return m;
}

InfoAlert decodeInfo(const Fields& f) {
  InfoAlert i;
  f.text("id", i.id);
  f.integer("duration_minutes", i.durationMinutes);
  f.text("type", i.type);
  f.text("title", i.title);
  f.text("description", i.description);
  f.text("message", i.message);
  f.text("button", i.button);
  f.text("function", i.function);
  f.text("link", i.link);
  f.text("present_title", i.presentTitle);
  f.text("present_description", i.presentDescription);
  f.text("present_button", i.presentButton);
  f.text("present_button_link", i.presentButtonLink);
  f.text("screen", i.screen);
  f.text("web_style", i.webStyle);
  f.text("share_text", i.shareText);
  f.text("share_url", i.shareURL);
  f.text("dialog_title", i.dialogTitle);
  f.text("dialog_text", i.dialogText);
  f.array("dialog_buttons", i.dialogButtons);
  f.text("bg_color", i.bgColor);
  f.text("text_color", i.textColor);
  f.text("icon", i.icon);
  f.text("position", i.position);
  f.boolean("compact", i.compact);
  f.boolean("dismissible", i.dismissible);
  f.boolean("pulse", i.pulse);
  f.text("image_url", i.imageURL);
  return i;
}

PaymentHistoryItem decodePayment(const Fields& f) {
  PaymentHistoryItem p;
  f.text("payment_id", p.paymentId);
  f.integer("date", p.date);
  f.text("amount", p.amount);
  f.number("amount_rub", p.amountRub);
  f.text("description", p.description);
  f.text("status", p.status);
  return p;
}

PrimaryCTA decodePrimaryCTA(const Fields& f) {
  PrimaryCTA c;
  f.text("text", c.text);
  f.text("action", c.action);
  f.text("link", c.link);
  return c;
}

SubPanel decodeSubPanel(const Fields& f) {
  SubPanel s;
  f.requiredText("state", s.state);
  f.text("title", s.title);
  f.text("subtitle", s.subtitle);
  f.text("plan_name", s.planName);
  f.text("price", s.price);
  f.number("price_rub", s.priceRub);
  f.text("currency", s.currency);
  f.text("billing_period", s.billingPeriod);
  f.integer("valid_until", s.validUntil);
  f.integer("next_billing_date", s.nextBillingDate);
  f.boolean("auto_renew", s.autoRenew);
  f.boolean("can_cancel", s.canCancel);
  f.nested("primary_cta", s.primaryCta, &decodePrimaryCTA);
  f.list("payment_history", s.paymentHistory, &decodePayment);
  return s;
}

ServiceSubscription decodeSubscription(const Fields& f) {
  ServiceSubscription s;
  f.text("plan_name", s.planName);
  f.text("price", s.price);
  f.requiredText("billing_period", s.billingPeriod);
  f.integer("next_billing_date", s.nextBillingDate);
  f.requiredBoolean("is_active", s.isActive);
  f.integer("cancelled_date", s.cancelledDate);
  return s;
}

ServiceUser decodeServiceUser(const Fields& f) {
  ServiceUser u;
  f.requiredBoolean("available", u.available);
  f.nested("subscription", u.service, &decodeSubscription);
  f.list("payment_history", u.paymentHistory, &decodePayment);
  return u;
}

Plan decodePlan(const Fields& f) {
  Plan p;
  f.text("name", p.name);
  f.text("price_current", p.priceCurrent);
  f.text("price_high", p.priceHigh);
  f.text("type", p.modeType);
  f.text("discount", p.discount);
  f.boolean("is_recommended", p.isRecommended);
  f.text("description", p.planDescription);
  return p;
}

OptionsDepend decodeDepend(const Fields& f) {
  OptionsDepend d;
  f.text("papi", d.activationAPI);
  f.text("title_label", d.titleLabel);
  f.text("description_label", d.descriptionLabel);
  f.text("about_view", d.aboutView);
  f.text("about_view_2", d.aboutView2);
  f.boolean("format", d.format);
  f.text("main1_text", d.main1Text);
  f.text("main2_text", d.main2Text);
  f.text("choose1_text", d.choose1Text);
  f.text("choose2_text", d.choose2Text);
  return d;
}

struct StorePage {
  OptBool enabled;
};
StorePage decodeStorePage(const Fields& f) {
  StorePage s;
  f.boolean("enabled", s.enabled);
  return s;
}

OptionsConfig decodeOptions(const Fields& f) {
  OptionsConfig o;
  f.boolean("accept", o.accept);
  f.list("plans", o.plans, &decodePlan);
  f.nested("depend", o.depend, &decodeDepend);
  f.boolean("agree_reccur", o.agreeReccur);
  std::optional<StorePage> storePage;
  f.nested("store_page", storePage, &decodeStorePage);
  if (storePage) o.storePageEnabled = storePage->enabled;
  return o;
}

APIResponse decodeResponse(const Fields& f) {
  APIResponse r;
  f.requiredNested("main", r.main, &decodeMain);
  f.requiredNested("info", r.info, &decodeInfo);
  f.array("faq", r.faq);
  f.nested("tariffs", r.options, &decodeOptions);
  f.nested("service_user", r.serviceUser, &decodeServiceUser);

  // These four may come at the top level or inside "main"; the top level wins.
  const Fields inMain(f.json().at("main"), "main");
  auto topOrMain = [&](const char* key) -> const Fields& { return f.find(key) ? f : inMain; };
  topOrMain("routing").nested("routing", r.routing, &decodeRouting);
  topOrMain("sub_panel").nested("sub_panel", r.subPanel, &decodeSubPanel);
  topOrMain("support_config").object("support_config", r.supportConfig);
  topOrMain("net_profile").object("net_profile", r.netProfile);
  return r;
}

}  // namespace

std::expected<APIResponse, std::string> decodeAPIResponse(std::string_view body) {
  return json_fields::decodeDocument(body, &decodeResponse);
}

}  // namespace norvik
