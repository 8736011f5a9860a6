// How an extension's test uses the client; type-checked against index.d.ts.
import { AppexError, launch } from '../index.js';
import { useAppex } from '../test.js';

export async function direct(): Promise<string> {
  const appex = await launch({ bundle: 'My.appex', serve: 'site', open: ['index.html'], timeout: 20_000 });
  try {
    const { tab } = await appex.openTab('page.html', { wait: 'load' });
    await appex.waitForLoad(tab);
    const title = await appex.evalInTab<string>(tab, 'document.title', { world: 'page' });
    const toolbar = await appex.waitForBadge('3', { tab });
    const badge: string | null = toolbar.badgeText;
    await appex.clickToolbar();
    const shown = await appex.popover();
    const words = await appex.eval<number>('document.querySelectorAll("p").length', { in: 'popup', timeout: 5_000 });
    await appex.waitForConsole(/counted/, { source: 'background' });
    await appex.snapshot('popover', 'popover.png');
    return `${title} ${badge} ${shown.width} ${words}`;
  } catch (error) {
    if (error instanceof AppexError) return `${error.command}: ${error.message}`;
    throw error;
  } finally {
    await appex.quit();
  }
}

const fixture = useAppex(() => ({ bundle: 'My.appex' }));
export const tabs = () => fixture.listTabs().then((all) => all.map((t) => t.title ?? t.url));
