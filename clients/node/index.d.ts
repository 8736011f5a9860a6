// Types of the appex control client (index.js).

/** A failed command or wait. */
export class AppexError extends Error {
  /** The request or wait that failed. */
  command?: string;
  /** The host's reply, when it sent one. */
  reply?: { id: number; ok: false; error: string };
}

export interface LaunchOptions {
  /** The extension bundle (a `.appex` folder); the bundled example when absent. */
  bundle?: string;
  /** A folder served on 127.0.0.1; relative URLs come from it. */
  serve?: string;
  /** URLs opened at start. */
  open?: string | string[];
  /** Where the extension's stored values live. */
  dataDir?: string;
  /** More `appex run` arguments. */
  args?: string[];
  /** The appex program: default `$APPEX_BIN`, else `appex` on the PATH. */
  appex?: string;
  env?: Record<string, string | undefined>;
  cwd?: string;
  /** How long to wait for "ready", in ms (default 30000). */
  timeout?: number;
}

/** A protocol event: `{event: name, ...fields}`. */
export interface AppexEvent {
  event: string;
  [field: string]: unknown;
}

export interface ToolbarState {
  window?: string;
  image: string | null;
  badgeText: string | null;
  label: string | null;
  enabled: boolean;
}

export interface TabEntry {
  tab: string;
  window: string;
  url: string | null;
  title: string | null;
  active: boolean;
}

export type Wait = 'load' | 'none';

export interface EvalOptions {
  in?: 'background' | 'popup' | 'tab';
  tab?: string;
  world?: 'content' | 'page';
  /** How long the evaluation may take before it fails. */
  timeout?: number;
}

export class Appex {
  constructor(options?: LaunchOptions);
  readonly pid: number;
  /** Every event received so far, oldest first. */
  readonly events: AppexEvent[];
  /** Everything the host wrote on stderr so far. */
  readonly stderr: string;
  /** Every line in and out, in order: "> request", "< reply or event", "! stderr". */
  readonly transcript: string[];
  /** The "ready" event, once it came. */
  readonly ready: AppexEvent | null;
  /** Resolves when the host has exited. */
  readonly exited: Promise<{ code: number | null; signal: string | null }>;

  request<T = unknown>(cmd: string, params?: Record<string, unknown>): Promise<T>;

  openTab(url: string, options?: { window?: string; active?: boolean; wait?: Wait }):
    Promise<{ tab: string; window: string }>;
  openWindow(url: string, options?: { private?: boolean; wait?: Wait }):
    Promise<{ window: string; tab: string | null }>;
  navigate(tab: string, url: string, options?: { wait?: Wait }): Promise<unknown>;
  activateTab(tab: string): Promise<true>;
  closeTab(tab: string): Promise<true>;
  closeWindow(window: string): Promise<true>;
  listTabs(): Promise<TabEntry[]>;

  eval<T = unknown>(code: string, options?: EvalOptions): Promise<T>;
  evalInTab<T = unknown>(tab: string, code: string, options?: Omit<EvalOptions, 'in' | 'tab'>): Promise<T>;

  clickToolbar(options?: { window?: string }): Promise<true>;
  closePopover(): Promise<true>;
  toolbar(options?: { window?: string }): Promise<ToolbarState>;
  popover(): Promise<{ shown: boolean; width: number; height: number }>;
  snapshot(of: 'popover' | 'background' | 'tab' | 'toolbar', path: string,
           options?: { tab?: string; window?: string }): Promise<{ path: string; width: number; height: number }>;
  defaults(): Promise<Record<string, string>>;

  /** Ends the run; resolves with how the host exited. */
  quit(): Promise<{ code: number | null; signal: string | null }>;
  /** Kills the host and everything it started. */
  close(): Promise<{ code: number | null; signal: string | null }>;

  /** Where the events so far end; pass as `since` to wait only for later ones. */
  mark(): number;
  waitForEvent(name: string, predicate?: ((event: AppexEvent) => boolean) | Record<string, unknown>,
               timeout?: number, options?: { since?: number }): Promise<AppexEvent>;
  waitForBadge(text: string, options?: { tab?: string; window?: string; timeout?: number }):
    Promise<AppexEvent & ToolbarState>;
  waitForConsole(re: RegExp | string, options?: { source?: string; tab?: string; timeout?: number }):
    Promise<AppexEvent>;
  waitForLoad(tab: string, options?: { timeout?: number; since?: number }): Promise<AppexEvent>;
}

/** Starts `appex run --control` and resolves once the host is ready. */
export function launch(options?: LaunchOptions): Promise<Appex>;
