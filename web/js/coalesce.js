// A burst of calls made into one: the first call schedules `run` after `ms`,
// the calls until it runs add nothing. For refetching a list whose change
// notices come in bursts.
export function coalesce(run, ms) {
  let pending = null;
  return () => {
    if (pending) return;
    pending = setTimeout(() => {
      pending = null;
      run();
    }, ms);
  };
}
