"""Answers that fuzzing starts from or once found, each for an account of one run."""

from fuzz.answers import Trial, corpus


def test_no_answer_of_the_corpus_does_harm(machine, service):
    answers = corpus()
    assert answers
    Trial(machine, service, len(answers)).run(list(answers.values()))


def test_answers_of_the_corpus_do_no_harm_in_small_pieces(machine, service):
    answers = list(corpus().values())

    def pieces(answer):
        return [answer[at : at + 7] for at in range(0, len(answer), 7)]

    Trial(machine, service, len(answers)).run(answers, pieces)
