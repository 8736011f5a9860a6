// Type declarations of the appex extension API (sdk/extension.js) and of
// the endpoints under it (sdk/content.js, the injected WKWebViewBridge).
//
// Reference this file from extension code, e.g. in tsconfig.json "files" or
// with a triple-slash directive:  /// <reference path="appex/appex.d.ts" />
// It declares globals only; nothing is imported.

declare namespace Appex {
  // ---------------------------------------------------------------------
  // Values native code answers with.
  // ---------------------------------------------------------------------

  /** Snapshot of a browser tab. */
  interface TabState {
    /** Stable for the tab's life (an upper-case UUID); never a number. */
    id: string;
    /** The page's absolute URL; "about:blank" when it has none. */
    url: string;
    /** The page's title; "" when it has none. */
    title: string;
    /** The tab is the active tab of its window. */
    isActive: boolean;
    /** The page uses private browsing. */
    isPrivate: boolean;
  }

  /** Snapshot of a browser window. */
  interface WindowState {
    /** Stable for the window's life (an upper-case UUID); unrelated to tab ids. */
    id: string;
    /** The window's tabs; an empty list unless they were asked for ("populate"). */
    tabs: TabState[] | null;
  }

  /** One key's change; null stands for "not stored". */
  interface StorageChange {
    oldValue: string | null;
    newValue: string | null;
  }

  /** Changes by key, as one storage operation made them. */
  type StorageChanges = { [key: string]: StorageChange };

  /** What the extension knows about itself. */
  interface ExtensionInfo {
    /** The base URI the browser reports for the extension's resources. */
    baseURI: string | null;
    /** The bundle's path followed by "/Contents/Resources/Assets/". */
    internalBaseURI: string;
    /** "<CFBundleShortVersionString>.<CFBundleVersion>", or null. */
    version: string | null;
    /** The value stored under "version" in local storage, if any. */
    storedVersion: string | null;
    /** The value stored under "baseURI" in local storage, if any. */
    storedBaseURI: string | null;
  }

  interface HttpRequestDetails {
    url: string;
    /** "GET" when omitted; passed on as written. */
    method?: string;
    /** The body for any method but "GET": text as it is, a dictionary as JSON. */
    data?: string | { [key: string]: unknown };
    /** "Content-Type" is always sent as "application/json". */
    headers?: { [name: string]: string };
  }

  interface HttpResponse {
    /** The body parsed as JSON, else as text; null without a body. */
    data: unknown;
    status: number | null;
    headers: { [name: string]: string } | null;
  }

  // ---------------------------------------------------------------------
  // Arguments.
  // ---------------------------------------------------------------------

  /** Accepted as the last argument of every method. */
  interface CallOptions {
    /** Ms to wait for the answer before rejecting; 5000 by default. */
    timeout?: number;
  }

  interface TabQuery {
    active?: boolean;
    /** true: tabs of the focused window; false: tabs of the others. */
    currentWindow?: boolean;
    /** Keeps tabs whose URL contains this text. */
    url?: string;
  }

  interface TabCreateProperties {
    url: string;
    /** true by default. */
    active?: boolean;
  }

  interface TabUpdateProperties {
    url: string;
    /** false by default. */
    active?: boolean;
  }

  interface TabUpdateDetails extends TabUpdateProperties {
    id: string;
  }

  interface WindowQuery {
    /** Fill each window's "tabs"; false by default. */
    populate?: boolean;
  }

  interface WindowCreateProperties {
    url: string;
  }

  interface IconDetails {
    /** Relative to the bundle's "Contents/Resources/Assets/extension/". */
    path: string;
    /** Only for this tab; for every tab without one of its own when omitted. */
    tabId?: string;
  }

  interface BadgeTextDetails {
    text: string;
    tabId?: string;
  }

  // ---------------------------------------------------------------------
  // Events and messages.
  // ---------------------------------------------------------------------

  interface Event<Listener extends (...args: any[]) => void> {
    addListener(listener: Listener): void;
    removeListener(listener: Listener): void;
    hasListener(listener: Listener): boolean;
    hasListeners(): boolean;
  }

  /**
   * A page addressed by runtime.sendMessage: "background", "popup", a tab id,
   * "<tab id>/<page id>", or the tab and page ids apart.
   */
  type MessageTarget = "background" | "popup" | (string & {}) | { tabId: string; pageId?: string };

  /** Who sent a runtime message: set for messages from content scripts. */
  interface MessageSender {
    tabId?: string;
    tabUrl?: string;
  }

  /**
   * Answers a message by returning a value or a promise of one, or leaves it
   * to the next listener by returning undefined. A listener that throws or
   * rejects fails the message with its error's message.
   */
  type MessageListener = (cmd: string, payload: any, sender: MessageSender) => unknown;

  interface MessageEvent extends Event<MessageListener> {
    /** Registers `listener`; returns the function that unregisters it. */
    (listener: MessageListener): () => void;
  }

  /** Which part of the extension the script runs in. */
  type Context = "background" | "popup" | "content" | "page";

  // ---------------------------------------------------------------------
  // The API.
  // ---------------------------------------------------------------------

  interface Tabs {
    get(id: string, options?: CallOptions): Promise<TabState>;
    query(query?: TabQuery, options?: CallOptions): Promise<TabState[]>;
    create(properties: TabCreateProperties, options?: CallOptions): Promise<TabState>;
    update(id: string, properties: TabUpdateProperties, options?: CallOptions): Promise<TabState>;
    update(details: TabUpdateDetails, options?: CallOptions): Promise<TabState>;
    /** true when the tab was found and closed, false when there is none. */
    remove(id: string, options?: CallOptions): Promise<boolean>;
    all(options?: CallOptions): Promise<TabState[]>;
    /** Background page only. */
    onCreated: Event<(tab: TabState) => void>;
    /** Background page only. */
    onUpdated: Event<(tab: TabState) => void>;
    /** Background page only. */
    onActivated: Event<(tab: TabState) => void>;
  }

  interface Windows {
    get(id: string, options?: CallOptions): Promise<WindowState>;
    getLastFocused(options?: CallOptions): Promise<WindowState>;
    getAll(query?: WindowQuery, options?: CallOptions): Promise<WindowState[]>;
    create(properties: WindowCreateProperties, options?: CallOptions): Promise<WindowState>;
    /** true when the window was found and closed, false when there is none. */
    remove(id: string, options?: CallOptions): Promise<boolean>;
    all(options?: CallOptions): Promise<WindowState[]>;
  }

  interface LocalStorage {
    /** null for keys without a (string) value. */
    get(keys: string | string[], options?: CallOptions): Promise<{ [key: string]: string | null }>;
    /** Values are strings; serialise anything else first. */
    set(items: { [key: string]: string }, options?: CallOptions): Promise<true>;
    remove(keys: string | string[], options?: CallOptions): Promise<true>;
    clear(options?: CallOptions): Promise<true>;
    all(options?: CallOptions): Promise<{ [key: string]: unknown }>;
  }

  interface Storage {
    local: LocalStorage;
    /** Every change made through appex.storage, in every part. */
    onChanged: Event<(changes: StorageChanges, areaName: "local") => void>;
  }

  interface BrowserAction {
    setIcon(details: IconDetails, options?: CallOptions): Promise<true>;
    setBadgeText(details: BadgeTextDetails, options?: CallOptions): Promise<true>;
  }

  interface Extension {
    info(options?: CallOptions): Promise<ExtensionInfo>;
    closePopup(options?: CallOptions): Promise<true>;
    /** Height in points; the width stays. */
    setPopupHeight(height: number, options?: CallOptions): Promise<true>;
  }

  interface Runtime {
    readonly context: Context;
    /**
     * Sends `payload` to the onMessage listeners of `target` and resolves
     * with their answer. Content scripts may not address tabs, and no page
     * may address itself: such calls reject at once.
     */
    sendMessage<T = unknown>(target: MessageTarget, cmd: string, payload?: unknown,
                             options?: CallOptions): Promise<T>;
    onMessage: MessageEvent;
  }

  interface Api {
    tabs: Tabs;
    windows: Windows;
    storage: Storage;
    browserAction: BrowserAction;
    extension: Extension;
    httpRequest(details: HttpRequestDetails, options?: CallOptions): Promise<HttpResponse>;
    runtime: Runtime;
  }

  // ---------------------------------------------------------------------
  // Endpoints under the API.
  // ---------------------------------------------------------------------

  /**
   * Answers an ask by returning a value or a promise, or declines it by
   * returning undefined.
   */
  type AskHandler = (cmd: string, args: any) => unknown;

  /** A promise-style ask/answer link to native code. */
  interface Endpoint {
    /** A timeout of 0 or none means the endpoint's default (5000 ms). */
    ask(cmd: string, args?: unknown, timeout?: number): Promise<any>;
    /** Returns the function that unregisters `handler`. */
    onAsk(handler: AskHandler): () => void;
    destroy(): void;
  }

  /** The endpoint content.js installs in each frame's content-script world. */
  interface ContentEndpoint extends Endpoint {
    /** 0 in the top frame, a random positive integer in a subframe. */
    readonly frameId: number;
    readonly isTopFrame: boolean;
    /** Whether native code knows a page in this tab. */
    readonly validated: Promise<boolean>;
  }
}

/** The extension API, in background, popup and content scripts alike. */
declare var appex: Appex.Api;
/** Content scripts only, installed by content.js. */
declare var AppexContent: Appex.ContentEndpoint | undefined;
/** Background and popup pages only, injected by native code. */
declare var WKWebViewBridge: Appex.Endpoint | undefined;
